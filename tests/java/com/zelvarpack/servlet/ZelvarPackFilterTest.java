package com.zelvarpack.servlet;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotNull;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.EnumSet;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import java.util.zip.GZIPInputStream;
import javax.servlet.DispatcherType;
import javax.servlet.http.HttpServlet;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletResponse;
import org.eclipse.jetty.server.Server;
import org.eclipse.jetty.server.ServerConnector;
import org.eclipse.jetty.servlet.DefaultServlet;
import org.eclipse.jetty.servlet.FilterHolder;
import org.eclipse.jetty.servlet.ServletContextHandler;
import org.eclipse.jetty.servlet.ServletHolder;
import org.junit.AfterClass;
import org.junit.BeforeClass;
import org.junit.Test;

/**
 * The filter and the handler servlet in a real Jetty on loopback, serving
 * pages whose stylesheet and script are inline (so nothing is fetched).
 */
public class ZelvarPackFilterTest {
  private static final int MAX_PAGE_BYTES = 100_000;
  private static Path root;
  private static Path cache;
  private static Server server;
  private static String base;
  private static final HttpClient client = HttpClient.newHttpClient();

  private static String page(int rules) {
    StringBuilder style = new StringBuilder();
    StringBuilder script = new StringBuilder();
    for (int i = 0; i < rules; ++i) {
      style.append(".r").append(i).append(" { color : blue ; }\n");
      script.append("var v").append(i).append(" = ").append(i).append(";\n");
    }
    return "<!DOCTYPE html><html><head><title>t</title><style>" + style + "</style><script>"
        + script + "</script></head><body><p>Hello    there</p></body></html>";
  }

  /** A page an application writes through getWriter, with its own validators. */
  public static final class WrittenPage extends HttpServlet {
    private static final long serialVersionUID = 1L;

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response)
        throws IOException {
      response.setContentType("text/html;charset=utf-8");
      response.setHeader("ETag", "\"app\"");
      response.setHeader("Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT");
      if (request.getParameter("missing") != null) response.setStatus(404);
      response.getWriter().write(page(50).replace("Hello", "Grüße"));
    }
  }

  @BeforeClass
  public static void startJetty() throws Exception {
    root = Files.createTempDirectory("zp-servlet-root-");
    cache = Files.createTempDirectory("zp-servlet-cache-");
    Files.writeString(root.resolve("page.html"), page(200));
    Files.writeString(root.resolve("plain.html"), "<p>no head   here</p>");
    Files.writeString(root.resolve("big.html"), page(5000));
    Files.writeString(root.resolve("style.css"), "p { color : red ; }");

    server = new Server();
    ServerConnector connector = new ServerConnector(server);
    connector.setHost("127.0.0.1");
    connector.setPort(0);
    server.addConnector(connector);
    ServletContextHandler context = new ServletContextHandler(ServletContextHandler.NO_SESSIONS);
    context.setContextPath("/");
    context.setResourceBase(root.toString());
    context.setInitParameter(ZelvarPackSettings.CACHE, cache.toString());
    context.setInitParameter(ZelvarPackSettings.TIMEOUT, "1");
    context.setInitParameter(ZelvarPackSettings.MAX_PAGE_BYTES, "" + MAX_PAGE_BYTES);
    context.setInitParameter(ZelvarPackSettings.KEEP_COMMENTS, "off");
    context.addFilter(new FilterHolder(new ZelvarPackFilter()), "/*",
        EnumSet.of(DispatcherType.REQUEST));
    context.addServlet(new ServletHolder(new ZelvarPackHandlerServlet()), "*.zp");
    context.addServlet(new ServletHolder(new WrittenPage()), "/written");
    context.addServlet(new ServletHolder("files", DefaultServlet.class), "/");
    server.setHandler(context);
    server.start();
    base = "http://127.0.0.1:" + connector.getLocalPort();
  }

  @AfterClass
  public static void stopJetty() throws Exception {
    server.stop();
    for (Path folder : new Path[] {root, cache}) {
      try (Stream<Path> paths = Files.walk(folder)) {
        for (Path p : (Iterable<Path>) paths.sorted(Comparator.reverseOrder())::iterator) {
          Files.deleteIfExists(p);
        }
      }
    }
  }

  private static HttpResponse<byte[]> get(String path, String... headers) throws Exception {
    return send("GET", path, headers);
  }

  private static HttpResponse<byte[]> send(String method, String path, String... headers)
      throws Exception {
    // The client's URI class takes no raw braces; see rawRequest for those.
    String escaped = path.replace("{", "%7B").replace("}", "%7D");
    HttpRequest.Builder request = HttpRequest.newBuilder(URI.create(base + escaped))
        .method(method, HttpRequest.BodyPublishers.noBody());
    if (headers.length > 0) request.headers(headers);
    return client.send(request.build(), HttpResponse.BodyHandlers.ofByteArray());
  }

  /** The head of the answer to a GET of `target` sent as it is. */
  private static String rawRequest(String target) throws IOException {
    URI uri = URI.create(base);
    try (java.net.Socket socket = new java.net.Socket(uri.getHost(), uri.getPort())) {
      socket.getOutputStream().write(("GET " + target + " HTTP/1.1\r\nHost: " + uri.getHost()
          + "\r\nConnection: close\r\n\r\n").getBytes(StandardCharsets.ISO_8859_1));
      String answer = new String(socket.getInputStream().readAllBytes(),
          StandardCharsets.ISO_8859_1);
      return answer.substring(0, Math.max(0, answer.indexOf("\r\n\r\n")));
    }
  }

  private static String header(HttpResponse<?> response, String name) {
    return response.headers().firstValue(name).orElse(null);
  }

  private static byte[] gunzip(byte[] bytes) throws IOException {
    try (InputStream in = new GZIPInputStream(new ByteArrayInputStream(bytes))) {
      return in.readAllBytes();
    }
  }

  private static String text(byte[] bytes) {
    return new String(bytes, StandardCharsets.UTF_8);
  }

  private static String idAfter(String page, String handler) {
    Matcher m = Pattern.compile(Pattern.quote(handler) + "(\\{[0-9A-F-]{36}\\})").matcher(page);
    assertTrue(handler + " in " + page, m.find());
    return m.group(1);
  }

  @Test
  public void aPageIsRewrittenWithItsOwnLengthAndNoValidators() throws Exception {
    HttpResponse<byte[]> plain = get("/page.html");
    assertEquals(200, plain.statusCode());
    String page = text(plain.body());
    idAfter(page, "./CS.zp?");
    idAfter(page, "./JS.zp?");
    assertFalse(page.contains(".r1 "));
    assertEquals("" + plain.body().length, header(plain, "Content-Length"));
    assertNull(header(plain, "Content-Encoding"));
    assertNull(header(plain, "ETag"));
    assertNull(header(plain, "Last-Modified"));

    HttpResponse<byte[]> zipped = get("/page.html", "Accept-Encoding", "gzip, br");
    assertEquals("gzip", header(zipped, "Content-Encoding"));
    assertEquals("Accept-Encoding", header(zipped, "Vary"));
    assertEquals("" + zipped.body().length, header(zipped, "Content-Length"));
    assertArrayEquals(plain.body(), gunzip(zipped.body()));
    // q=0 refuses gzip.
    assertNull(header(get("/page.html", "Accept-Encoding", "gzip;q=0"), "Content-Encoding"));
  }

  @Test
  public void aPageWrittenThroughTheWriterKeepsItsTextAndLosesItsValidators() throws Exception {
    HttpResponse<byte[]> response = get("/written");
    String page = text(response.body());
    assertTrue(page.contains("Grüße there"));
    idAfter(page, "CS.zp?");
    assertNull(header(response, "ETag"));
    assertNull(header(response, "Last-Modified"));
    // Not a 200: as the application wrote it.
    HttpResponse<byte[]> missing = get("/written?missing=1");
    assertEquals(404, missing.statusCode());
    assertEquals(page(50).replace("Hello", "Grüße"), text(missing.body()));
    assertEquals("\"app\"", header(missing, "ETag"));
  }

  @Test
  public void whatTheFilterMustNotChangePassesThroughAsItWas() throws Exception {
    byte[] big = Files.readAllBytes(root.resolve("big.html"));
    assertTrue(big.length > MAX_PAGE_BYTES);
    HttpResponse<byte[]> large = get("/big.html", "Accept-Encoding", "gzip");
    assertArrayEquals(big, large.body());
    assertNull(header(large, "Content-Encoding"));

    // A page that comes back unchanged keeps its validators.
    HttpResponse<byte[]> plain = get("/plain.html");
    assertEquals("<p>no head   here</p>", text(plain.body()));
    assertNotNull(header(plain, "Last-Modified"));

    HttpResponse<byte[]> css = get("/style.css");
    assertEquals("p { color : red ; }", text(css.body()));

    HttpResponse<byte[]> range = get("/page.html", "Range", "bytes=0-14");
    assertEquals(206, range.statusCode());
    assertEquals("<!DOCTYPE html>", text(range.body()));

    HttpResponse<byte[]> head = send("HEAD", "/page.html");
    assertEquals(200, head.statusCode());
    assertEquals("" + Files.size(root.resolve("page.html")), header(head, "Content-Length"));
    assertNotNull(header(head, "Last-Modified"));
  }

  @Test
  public void handlersServeStoredResultsForAYearWithEtagsAndGzip() throws Exception {
    String page = text(get("/page.html").body());
    String css = idAfter(page, "CS.zp?");
    String js = idAfter(page, "JS.zp?");

    HttpResponse<byte[]> sheet = get("/CS.zp?" + css);
    assertEquals(200, sheet.statusCode());
    assertTrue(text(sheet.body()).startsWith(".r0{color:blue;}"));
    assertEquals("text/css", header(sheet, "Content-Type"));
    assertEquals(ZelvarPackHandlerServlet.CACHE_CONTROL, header(sheet, "Cache-Control"));
    assertEquals("\"" + css + "\"", header(sheet, "ETag"));
    assertNull(header(sheet, "Content-Encoding"));

    // Any folder; the id as browsers send it, braces and all.
    assertTrue(rawRequest("/CS.zp?" + css).startsWith("HTTP/1.1 200 "));
    HttpResponse<byte[]> zipped = get("/any/where/CS.zp?" + css, "Accept-Encoding", "gzip");
    assertEquals("gzip", header(zipped, "Content-Encoding"));
    assertArrayEquals(sheet.body(), gunzip(zipped.body()));
    assertEquals("" + zipped.body().length, header(zipped, "Content-Length"));

    HttpResponse<byte[]> script = get("/JS.zp?" + js, "Accept-Encoding", "gzip");
    assertEquals("gzip", header(script, "Content-Encoding"));
    assertTrue(text(gunzip(script.body())).contains("var v199 = 199;"));

    HttpResponse<byte[]> again = get("/JS.zp?" + js, "If-None-Match", "\"" + js + "\"");
    assertEquals(304, again.statusCode());
    assertEquals(0, again.body().length);
  }

  @Test
  public void unknownAndMalformedIdsAre404AndThePlaceholderIsAGif() throws Exception {
    for (String path : new String[] {"/CS.zp?{00000000-0000-0000-0000-000000000000}",
             "/JS.zp?nothing", "/IS.zp?{00000000-0000-0000-0000-000000000000}", "/CS.zp?",
             "/CS.zp", "/XS.zp?{00000000-0000-0000-0000-000000000000}",
             "/CS.zp?..%2F..%2Fetc%2Fpasswd"}) {
      assertEquals(path, 404, get(path).statusCode());
    }
    assertTrue(rawRequest("/IS.zp?%zz").startsWith("HTTP/1.1 404 "));
    HttpResponse<byte[]> gif = get("/IS.zp?" + ZelvarPackHandlerServlet.PLACEHOLDER_ID);
    assertEquals(200, gif.statusCode());
    assertEquals("image/gif", header(gif, "Content-Type"));
    assertEquals(43, gif.body().length);
    assertEquals(ZelvarPackHandlerServlet.CACHE_CONTROL, header(gif, "Cache-Control"));
  }

  @Test
  public void storedSheetsAreServedWithTheTypeOfTheirBytes() throws Exception {
    String id = "{ABCDEF01-2345-6789-ABCD-EF0123456789}";
    byte[] png = {(byte) 0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n', 1, 2, 3};
    Files.createDirectories(cache.resolve("png"));
    Files.write(cache.resolve("png").resolve(id), png);
    HttpResponse<byte[]> sheet = get("/IS.zp?" + id, "Accept-Encoding", "gzip");
    assertEquals(200, sheet.statusCode());
    assertEquals("image/png", header(sheet, "Content-Type"));
    assertNull(header(sheet, "Content-Encoding"));
    assertArrayEquals(png, sheet.body());
  }

  @Test
  public void settingsAreReadWithDefaultsAndBadValuesRefused() {
    ZelvarPackSettings settings =
        ZelvarPackSettings.read(name -> name.equals(ZelvarPackSettings.CACHE) ? "/c" : null,
            name -> name.equals(ZelvarPackSettings.FETCH_FOREIGN) ? "on" : null);
    assertEquals("/c", settings.cacheFolder);
    assertEquals(2, settings.timeoutSeconds);
    assertTrue(settings.fetchForeign);
    assertTrue(settings.keepComments);
    assertNull(settings.serverAddress);
    assertNull(settings.handlerPath);
    for (String[] bad : new String[][] {{ZelvarPackSettings.TIMEOUT, "-1"},
             {ZelvarPackSettings.TIMEOUT, "two"}, {ZelvarPackSettings.KEEP_COMMENTS, "maybe"},
             {ZelvarPackSettings.CACHE, ""}}) {
      try {
        ZelvarPackSettings.read(name -> name.equals(bad[0]) ? bad[1]
                : name.equals(ZelvarPackSettings.CACHE) ? "/c" : null, name -> null);
        throw new AssertionError(bad[0] + "=" + bad[1] + " was taken");
      } catch (IllegalArgumentException expected) {
        // refused
      }
    }
  }

  @Test
  public void acceptEncodingAndEtagMatchingFollowHttp() {
    assertTrue(HttpText.acceptsGzip("deflate, gzip;q=0.5"));
    assertTrue(HttpText.acceptsGzip("*"));
    assertFalse(HttpText.acceptsGzip("gzip;q=0, br"));
    assertFalse(HttpText.acceptsGzip("x-gzip2"));
    assertFalse(HttpText.acceptsGzip(null));
    assertTrue(HttpText.matchesEtag("\"a\", W/\"b\"", "\"b\""));
    assertFalse(HttpText.matchesEtag("\"a\"", "\"b\""));
  }
}
