package com.zelvarpack;

import static com.zelvarpack.JavaTestSupport.direct;
import static com.zelvarpack.JavaTestSupport.gunzip;
import static com.zelvarpack.JavaTestSupport.idAfter;
import static com.zelvarpack.JavaTestSupport.inlinePage;
import static com.zelvarpack.JavaTestSupport.isGzip;
import static com.zelvarpack.JavaTestSupport.optimise;
import static com.zelvarpack.JavaTestSupport.text;
import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotNull;
import static org.junit.Assert.assertNotSame;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import com.sun.net.httpserver.HttpServer;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.atomic.AtomicReference;
import java.util.zip.GZIPOutputStream;
import org.junit.After;
import org.junit.Assume;
import org.junit.Before;
import org.junit.Test;

/** The Java surface on a real virtual machine: every method, and the marshalling rules. */
public class BridgeTest {
  private static final String SPRITE_PLACEHOLDER = "IS.zp?{2F50498C-8605-468F-991E-AEABAA95E643}";
  private static final String UNKNOWN_ID = "{00000000-0000-0000-0000-000000000001}";
  private Path cache;

  @Before
  public void makeCache() throws IOException {
    cache = Files.createTempDirectory("zp-java-");
  }

  @After
  public void removeCache() throws IOException {
    JavaTestSupport.deleteTree(cache);
  }

  @Test
  public void pageIsRewrittenAndItsCountersAndCopiesReadBack() throws IOException {
    ByteBuffer server = optimise(cache, inlinePage(200));
    try {
      byte[] plain = CZelvarHtmlServer.GetRawZelvarBuffer(server, false);
      assertFalse(CZelvarHtmlServer.GetRawZelvarBufferWasGzip(server));
      String page = text(plain);
      assertNotNull(page, idAfter(page, "CS.zp?"));
      assertNotNull(page, idAfter(page, "JS.zp?"));
      assertFalse("the inline sheet left the page", page.contains(".rule1 "));

      // Every call copies: equal bytes, a new array, and changing one
      // changes nothing the server holds.
      byte[] again = CZelvarHtmlServer.GetRawZelvarBuffer(server, false);
      assertNotSame(plain, again);
      assertArrayEquals(plain, again);
      again[0] ^= 1;
      assertArrayEquals(plain, CZelvarHtmlServer.GetRawZelvarBuffer(server, false));

      byte[] zipped = CZelvarHtmlServer.GetRawZelvarBuffer(server, true);
      assertTrue(isGzip(zipped));
      assertTrue(CZelvarHtmlServer.GetRawZelvarBufferWasGzip(server));
      assertArrayEquals(plain, gunzip(zipped));

      assertTrue(CZelvarHtmlServer.GetId(server).matches("\\{[0-9A-F-]{36}\\}"));
      assertEquals(CZelvarHtmlServer.GetId(server), CZelvarHtmlServer.GetId(server));
      // Nothing was fetched: the page is the only request before, and the
      // two combined groups are loaded after it.
      assertEquals(1, CZelvarHtmlServer.GetRequestsBefore(server));
      assertEquals(3, CZelvarHtmlServer.GetRequestsAfter(server));
      assertEquals(0, CZelvarHtmlServer.GetBytesBefore(server));
      assertTrue(CZelvarHtmlServer.GetBytesAfter(server, 1000, false) > 1000);
      assertTrue(CZelvarHtmlServer.GetBytesAfter(server, 1000, true)
          < CZelvarHtmlServer.GetBytesAfter(server, 1000, false));
    } finally {
      CZelvarHtmlServer.Destroy(server);
    }
  }

  @Test
  public void storedSheetAndScriptAreServedPlainOrGzippedWithTheirFlags() throws IOException {
    ByteBuffer page = optimise(cache, inlinePage(200));
    String rewritten = text(CZelvarHtmlServer.GetRawZelvarBuffer(page, false));
    CZelvarHtmlServer.Destroy(page);
    String cssId = idAfter(rewritten, "CS.zp?");
    String jsId = idAfter(rewritten, "JS.zp?");

    ByteBuffer css = CZelvarCssServer.Create(cache.toString());
    try {
      byte[] sheet = CZelvarCssServer.GetMinifiedId(css, cssId, false);
      assertTrue(text(sheet).startsWith(".rule0{color:red;margin:0px 1px;}.rule1{"));
      assertFalse(CZelvarCssServer.GetMinifiedIdWasGzip(css));
      byte[] zipped = CZelvarCssServer.GetMinifiedId(css, cssId, true);
      assertTrue(isGzip(zipped));
      assertTrue(CZelvarCssServer.GetMinifiedIdWasGzip(css));
      assertArrayEquals(sheet, gunzip(zipped));
      // The flag is never cleared, and the plain form stays available.
      assertArrayEquals(sheet, CZelvarCssServer.GetMinifiedId(css, cssId, false));
      assertTrue(CZelvarCssServer.GetMinifiedIdWasGzip(css));
      assertNull(CZelvarCssServer.GetMinifiedId(css, UNKNOWN_ID, true));
      assertNull(CZelvarCssServer.GetMinifiedId(css, "../../etc/passwd", false));
      assertNull(CZelvarCssServer.GetMinifiedId(css, "", false));
    } finally {
      CZelvarCssServer.Destroy(css);
    }

    ByteBuffer js = CZelvarJSServer.Create(cache.toString());
    try {
      byte[] script = CZelvarJSServer.GetRawId(js, jsId, false);
      assertTrue(text(script).contains("var value199 = 199;"));
      assertFalse(CZelvarJSServer.GetRawIdWasGzip(js));
      byte[] zipped = CZelvarJSServer.GetRawId(js, jsId, true);
      assertTrue(isGzip(zipped));
      assertTrue(CZelvarJSServer.GetRawIdWasGzip(js));
      assertArrayEquals(script, gunzip(zipped));
      assertNull(CZelvarJSServer.GetRawId(js, UNKNOWN_ID, false));
      assertNull(CZelvarJSServer.GetRawId(js, cssId.toLowerCase(), false));
    } finally {
      CZelvarJSServer.Destroy(js);
    }
  }

  @Test
  public void addWorkReadsTheDirectBufferInPlaceWithinItsCapacity() {
    byte[] bytes = "<p>a page without a head comes back as it was</p>TAIL"
        .getBytes(StandardCharsets.US_ASCII);
    int withoutTail = bytes.length - 4;
    String[] expected = {
        // count cuts the bytes, more than the capacity is cut to it, and
        // a heap buffer (no address) or a negative count adds nothing
        text(bytes).substring(0, withoutTail), text(bytes), "", ""};
    for (int c = 0; c < expected.length; ++c) {
      ByteBuffer server = CZelvarHtmlServer.Create(
          null, 1, false, true, true, 0, null, null, null, 0, null, 0, null, 0, null, null,
          null, null, null);
      try {
        switch (c) {
          case 0: CZelvarHtmlServer.AddWork(server, direct(bytes), withoutTail); break;
          case 1: CZelvarHtmlServer.AddWork(server, direct(bytes), bytes.length + 1000); break;
          case 2: CZelvarHtmlServer.AddWork(server, ByteBuffer.wrap(bytes), bytes.length); break;
          default: CZelvarHtmlServer.AddWork(server, direct(bytes), -5); break;
        }
        CZelvarHtmlServer.AddWork(server, null, 10);
        CZelvarHtmlServer.DoWork(server);
        assertEquals("case " + c, expected[c],
            text(CZelvarHtmlServer.GetRawZelvarBuffer(server, false)));
      } finally {
        CZelvarHtmlServer.Destroy(server);
      }
    }
  }

  @Test
  public void nullHandlesAreRefusedAndDestroyOfNullDoesNothing() {
    CZelvarHtmlServer.Destroy(null);
    CZelvarCssServer.Destroy(null);
    CZelvarJSServer.Destroy(null);
    CZelvarImageServer.Destroy(null);
    CZelvarImages.Destroy(null);
    CZelvarUtils.Destroy(null);
    // A heap buffer has no address: Destroy treats it as null.
    CZelvarHtmlServer.Destroy(ByteBuffer.allocate(64));

    assertThrows(NullPointerException.class, () -> CZelvarHtmlServer.DoWork(null));
    assertThrows(NullPointerException.class, () -> CZelvarHtmlServer.GetId(null));
    assertThrows(NullPointerException.class,
        () -> CZelvarHtmlServer.GetRawZelvarBuffer(null, true));
    assertThrows(NullPointerException.class, () -> CZelvarCssServer.GetMinifiedIdWasGzip(null));
    assertThrows(NullPointerException.class, () -> CZelvarJSServer.GetRawId(null, "x", false));
    assertThrows(NullPointerException.class, () -> CZelvarImageServer.GetGifId(null, "x"));
    assertThrows(NullPointerException.class, () -> CZelvarImages.GetRawImageZelvarBuffer(null));
    assertThrows(NullPointerException.class, () -> CZelvarUtils.DownloadUrl(null, "x", 1));
  }

  @Test
  public void aBufferThatIsNotAHandleOfTheClassIsRefused() {
    ByteBuffer css = CZelvarCssServer.Create(cache.toString());
    ByteBuffer utils = CZelvarUtils.Create();
    try {
      assertThrows(IllegalArgumentException.class, () -> CZelvarHtmlServer.GetId(css));
      assertThrows(IllegalArgumentException.class, () -> CZelvarImages.Destroy(utils));
      assertThrows(IllegalArgumentException.class,
          () -> CZelvarCssServer.GetMinifiedIdWasGzip(ByteBuffer.allocate(css.capacity())));
      assertThrows(IllegalArgumentException.class,
          () -> CZelvarJSServer.GetRawIdWasGzip(ByteBuffer.allocateDirect(3)));
    } finally {
      CZelvarCssServer.Destroy(css);
      CZelvarUtils.Destroy(utils);
    }
  }

  @Test
  public void nullStringsArePassedAsNullAndNullIdsAreRefused() {
    ByteBuffer css = CZelvarCssServer.Create(null);
    ByteBuffer js = CZelvarJSServer.Create(null);
    ByteBuffer images = CZelvarImageServer.Create(null);
    try {
      assertNull(CZelvarCssServer.GetMinifiedId(css, UNKNOWN_ID, false));
      assertThrows(NullPointerException.class, () -> CZelvarCssServer.GetMinifiedId(css, null, true));
      assertThrows(NullPointerException.class, () -> CZelvarJSServer.GetRawId(js, null, true));
      assertThrows(NullPointerException.class, () -> CZelvarImageServer.GetGifId(images, null));
      assertThrows(NullPointerException.class, () -> CZelvarImageServer.GetJpgId(images, null));
      assertThrows(NullPointerException.class, () -> CZelvarImageServer.GetPng24Id(images, null));
      assertThrows(NullPointerException.class, () -> CZelvarImageServer.GetPng32Id(images, null));
      // The server stays usable after a refused call.
      assertFalse(CZelvarCssServer.GetMinifiedIdWasGzip(css));
    } finally {
      CZelvarCssServer.Destroy(css);
      CZelvarJSServer.Destroy(js);
      CZelvarImageServer.Destroy(images);
    }
  }

  @Test
  public void sheetsAreFoundInTheirGettersFoldersAndCopiedOut() throws IOException {
    String gifId = "{11111111-2222-3333-4444-555555555555}";
    String jpgId = "{11111111-2222-3333-4444-666666666666}";
    String pngId = "{11111111-2222-3333-4444-777777777777}";
    byte[] gif = JavaTestSupport.sheet(300);
    byte[] jpg = {(byte) 0xFF, (byte) 0xD8, (byte) 0xFF, 0x11, 0x22};
    byte[] png = {(byte) 0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n', 7};
    for (String[] sheet : new String[][] {{"gif", gifId}, {"jpg", jpgId}, {"png", pngId}}) {
      Files.createDirectories(cache.resolve(sheet[0]));
    }
    Files.write(cache.resolve("gif").resolve(gifId), gif);
    Files.write(cache.resolve("jpg").resolve(jpgId), jpg);
    Files.write(cache.resolve("png").resolve(pngId), png);

    ByteBuffer server = CZelvarImageServer.Create(cache.toString());
    try {
      ByteBuffer found = CZelvarImageServer.GetGifId(server, gifId);
      assertNotNull(found);
      byte[] first = CZelvarImages.GetRawImageZelvarBuffer(found);
      byte[] second = CZelvarImages.GetRawImageZelvarBuffer(found);
      assertNotSame(first, second);
      assertArrayEquals(gif, first);
      assertArrayEquals(gif, second);
      CZelvarImages.Destroy(found);

      // GetJpgId and GetPng24Id read the jpg folder, GetPng32Id the png one.
      for (ByteBuffer images : new ByteBuffer[] {CZelvarImageServer.GetJpgId(server, jpgId),
               CZelvarImageServer.GetPng24Id(server, jpgId)}) {
        assertArrayEquals(jpg, CZelvarImages.GetRawImageZelvarBuffer(images));
        CZelvarImages.Destroy(images);
      }
      ByteBuffer images = CZelvarImageServer.GetPng32Id(server, pngId);
      assertArrayEquals(png, CZelvarImages.GetRawImageZelvarBuffer(images));
      CZelvarImages.Destroy(images);

      assertNull(CZelvarImageServer.GetGifId(server, jpgId));
      assertNull(CZelvarImageServer.GetPng32Id(server, gifId));
      assertNull(CZelvarImageServer.GetJpgId(server, UNKNOWN_ID));
      assertNull(CZelvarImageServer.GetGifId(server, "gif/" + gifId));
    } finally {
      CZelvarImageServer.Destroy(server);
    }
  }

  /**
   * An HTTP server on port 80 of a loopback address of this process (the
   * engine's downloads use the scheme's port), or the test is skipped when
   * that port cannot be had.
   */
  private static HttpServer portEightyServer(InetAddress address) {
    try {
      return HttpServer.create(new InetSocketAddress(address, 80), 0);
    } catch (IOException e) {
      Assume.assumeNoException("port 80 on " + address.getHostAddress() + " is not ours", e);
      return null;
    }
  }

  @Test
  public void downloadUrlReturnsTheDecodedBodyAndEmptyOnFailure() throws IOException {
    InetAddress address = LoopbackAddresses.forThisProcess(1);
    HttpServer http = portEightyServer(address);
    byte[] body = inlinePage(50).getBytes(StandardCharsets.UTF_8);
    AtomicReference<String> agent = new AtomicReference<>();
    http.createContext("/zipped", exchange -> {
      agent.set(exchange.getRequestHeaders().getFirst("User-Agent"));
      ByteArrayOutputStream zipped = new ByteArrayOutputStream();
      try (GZIPOutputStream gzip = new GZIPOutputStream(zipped)) {
        gzip.write(body);
      }
      exchange.getResponseHeaders().add("Content-Encoding", "gzip");
      exchange.sendResponseHeaders(200, zipped.size());
      try (OutputStream out = exchange.getResponseBody()) {
        zipped.writeTo(out);
      }
    });
    http.createContext("/missing", exchange -> {
      exchange.sendResponseHeaders(404, -1);
      exchange.close();
    });
    http.start();
    ByteBuffer utils = CZelvarUtils.Create();
    try {
      String base = "http://" + address.getHostAddress();
      assertArrayEquals(body, CZelvarUtils.DownloadUrl(utils, base + "/zipped", 10));
      assertNull("no agent is sent through this entry", agent.get());
      assertEquals(0, CZelvarUtils.DownloadUrl(utils, base + "/missing", 10).length);
      assertEquals(0, CZelvarUtils.DownloadUrl(utils, "not an address", 10).length);
      assertEquals(0, CZelvarUtils.DownloadUrl(utils, null, 10).length);
    } finally {
      CZelvarUtils.Destroy(utils);
      http.stop(0);
    }
  }

  @Test
  public void theOptimiserKeepsItsOwnCopiesOfTheForwardedTexts() throws IOException {
    InetAddress address = LoopbackAddresses.forThisProcess(2);
    HttpServer http = portEightyServer(address);
    java.util.Map<String, String> seen = new java.util.concurrent.ConcurrentHashMap<>();
    Path images = Path.of(System.getProperty("zelvarpack.source"), "testdata", "site", "img");
    http.createContext("/", exchange -> {
      for (String name : new String[] {"User-Agent", "Accept-Language", "Accept-Charset"}) {
        String value = exchange.getRequestHeaders().getFirst(name);
        if (value != null) seen.put(name, value);
      }
      String path = exchange.getRequestURI().getPath();
      byte[] body = path.equals("/a.css") ? "p{color:red}".getBytes(StandardCharsets.US_ASCII)
          : Files.readAllBytes(images.resolve(path.substring(path.lastIndexOf('/') + 1)));
      exchange.sendResponseHeaders(200, body.length);
      try (OutputStream out = exchange.getResponseBody()) {
        out.write(body);
      }
    });
    http.start();
    try {
      String pageUrl = "http://" + address.getHostAddress() + "/page.html";
      StringBuilder markup = new StringBuilder(
          "<html><head><link rel=\"stylesheet\" href=\"/a.css\"></head><body>");
      for (String image : new String[] {"ball.gray.png", "ball.red.png", "comp.blue.png",
               "folder.png"}) {
        markup.append("<img src=\"/img/").append(image).append("\" width=14 height=14>");
      }
      byte[] page = markup.append("</body></html>").toString().getBytes(StandardCharsets.UTF_8);
      // The agent decides whether images become sprites: an old browser's
      // gets none, anything else (garbage included) gets them. Built at run
      // time, so nothing but the bridge can keep these texts alive.
      String oldAgent = new StringBuilder("Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)")
          .append("").toString();
      String language = new StringBuilder("de-CH,de;q=0.9").append("").toString();
      ByteBuffer server = CZelvarHtmlServer.Create(cache.toString(), 1, false, true, true, 10,
          null, null, "127.0.0.1", 9, null, 0, pageUrl, pageUrl.length(), "utf-8", language,
          null, null, oldAgent);
      // The texts the JVM handed out for the call are gone once it returns
      // (wiped under -Xcheck:jni); take that memory again with a new agent
      // of the same length.
      String newAgent = "Mozilla/5.0 (X11; Linux x86_64) Chrome/120.0.0.0 Safari/537.36 "
          .substring(0, oldAgent.length());
      for (int i = 0; i < 2000; ++i) {
        CZelvarCssServer.Destroy(CZelvarCssServer.Create(newAgent));
        CZelvarCssServer.Destroy(CZelvarCssServer.Create(language.replace('d', 'x')));
      }
      CZelvarHtmlServer.AddWork(server, direct(page), page.length);
      CZelvarHtmlServer.DoWork(server);
      String rewritten = text(CZelvarHtmlServer.GetRawZelvarBuffer(server, false));
      CZelvarHtmlServer.Destroy(server);
      assertFalse(rewritten, rewritten.contains(SPRITE_PLACEHOLDER));
      assertEquals(oldAgent, seen.get("User-Agent"));
      assertEquals(language, seen.get("Accept-Language"));
      assertEquals("utf-8", seen.get("Accept-Charset"));

      // The control: the same page for the new agent gets sprites.
      ByteBuffer other = CZelvarHtmlServer.Create(cache.toString(), 1, false, true, true, 10,
          null, null, null, 0, null, 0, pageUrl, pageUrl.length(), null, null, null, null,
          newAgent);
      CZelvarHtmlServer.AddWork(other, direct(page), page.length);
      CZelvarHtmlServer.DoWork(other);
      String sprited = text(CZelvarHtmlServer.GetRawZelvarBuffer(other, false));
      CZelvarHtmlServer.Destroy(other);
      assertTrue(sprited, sprited.contains(SPRITE_PLACEHOLDER));
    } finally {
      http.stop(0);
    }
  }
}
