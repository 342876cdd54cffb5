package com.zelvarpack;

import static com.zelvarpack.JavaTestSupport.direct;
import static com.zelvarpack.JavaTestSupport.idAfter;
import static com.zelvarpack.JavaTestSupport.inlinePage;
import static com.zelvarpack.JavaTestSupport.text;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotNull;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.Test;

/**
 * 10,000 cycles of every handle kind, created, used and destroyed, leave the
 * process's resident memory where it was after a warm-up. Each cycle moves
 * enough native memory (a 40 KB page, a 48 KB sheet, the stored sheet and
 * script) that one object left behind per cycle would add hundreds of MB.
 */
public class LeakTest {
  private static final int WARM_UP = 1_000;
  private static final int CYCLES = 10_000;
  private static final long ALLOWED_GROWTH_KB = 24 * 1024;

  @Test
  public void residentMemoryStaysFlatOverTenThousandCycles() throws IOException {
    Path cache = Files.createTempDirectory("zp-java-leak-");
    try {
      byte[] page = inlinePage(600).getBytes(StandardCharsets.UTF_8);
      String gifId = "{0F0F0F0F-1234-5678-9ABC-DEF012345678}";
      Files.createDirectories(cache.resolve("gif"));
      Files.write(cache.resolve("gif").resolve(gifId), JavaTestSupport.sheet(48 * 1024));
      ByteBuffer pageBuffer = direct(page);

      // The first cycle stores the sheet and the script; every later one
      // finds them stored.
      ByteBuffer first = JavaTestSupport.optimise(cache, text(page));
      String rewritten = text(CZelvarHtmlServer.GetRawZelvarBuffer(first, false));
      CZelvarHtmlServer.Destroy(first);
      String[] ids = {idAfter(rewritten, "CS.zp?"), idAfter(rewritten, "JS.zp?"), gifId};
      assertNotNull(ids[0]);
      assertNotNull(ids[1]);

      long checksum = 0;
      for (int i = 0; i < WARM_UP; ++i) checksum += cycle(cache, pageBuffer, page.length, ids);
      System.gc();
      long before = residentKb();
      long start = System.nanoTime();
      for (int i = 0; i < CYCLES; ++i) checksum += cycle(cache, pageBuffer, page.length, ids);
      long seconds = (System.nanoTime() - start) / 1_000_000_000L;
      System.gc();
      long after = residentKb();
      System.out.printf("leak test: %d cycles in %d s, resident %d KB before, %d KB after"
              + " (%+d KB)%n",
          CYCLES, seconds, before, after, after - before);
      assertTrue(checksum > 0);
      assertTrue("resident memory grew by " + (after - before) + " KB",
          after - before < ALLOWED_GROWTH_KB);
    } finally {
      JavaTestSupport.deleteTree(cache);
    }
  }

  /** One use of every handle kind; returns the bytes it saw. */
  private static long cycle(Path cache, ByteBuffer page, int length, String[] ids) {
    String folder = cache.toString();
    long seen = 0;
    ByteBuffer server = CZelvarHtmlServer.Create(folder, 1, false, false, true, 0, "/zp",
        null, "127.0.0.1", 9, "127.0.0.1", 9, JavaTestSupport.PAGE_URL,
        JavaTestSupport.PAGE_URL.length(), "utf-8", "en", "c", "d", "Mozilla/5.0 Chrome/120.0");
    CZelvarHtmlServer.AddWork(server, page, length);
    CZelvarHtmlServer.DoWork(server);
    seen += CZelvarHtmlServer.GetRawZelvarBuffer(server, false).length;
    seen += CZelvarHtmlServer.GetRawZelvarBuffer(server, true).length;
    seen += CZelvarHtmlServer.GetId(server).length();
    seen += CZelvarHtmlServer.GetBytesAfter(server, length, true);
    CZelvarHtmlServer.Destroy(server);

    ByteBuffer css = CZelvarCssServer.Create(folder);
    seen += CZelvarCssServer.GetMinifiedId(css, ids[0], true).length;
    seen += CZelvarCssServer.GetMinifiedId(css, ids[0], false).length;
    CZelvarCssServer.Destroy(css);

    ByteBuffer js = CZelvarJSServer.Create(folder);
    seen += CZelvarJSServer.GetRawId(js, ids[1], true).length;
    CZelvarJSServer.Destroy(js);

    ByteBuffer images = CZelvarImageServer.Create(folder);
    ByteBuffer sheet = CZelvarImageServer.GetGifId(images, ids[2]);
    seen += CZelvarImages.GetRawImageZelvarBuffer(sheet).length;
    CZelvarImages.Destroy(sheet);
    CZelvarImageServer.Destroy(images);

    ByteBuffer utils = CZelvarUtils.Create();
    CZelvarUtils.Destroy(utils);
    return seen;
  }

  private static long residentKb() throws IOException {
    List<String> status = Files.readAllLines(Path.of("/proc/self/status"));
    for (String line : status) {
      if (line.startsWith("VmRSS:")) return Long.parseLong(line.replaceAll("[^0-9]", ""));
    }
    assertEquals("VmRSS in /proc/self/status", true, false);
    return 0;
  }
}
