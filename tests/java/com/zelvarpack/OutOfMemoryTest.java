package com.zelvarpack;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.fail;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.Assume;
import org.junit.Test;

/**
 * A native allocation failure reaches Java as OutOfMemoryError and leaves
 * the JVM and the object usable. Run under a limit on the address space
 * (CTest starts it through prlimit): the test fills part of the room left
 * with a direct buffer, then asks the optimiser to copy all of it.
 */
public class OutOfMemoryTest {
  @Test
  public void nativeAllocationFailureBecomesOutOfMemoryError() throws IOException {
    long limit = addressSpaceLimit();
    Assume.assumeTrue("runs under an address-space limit", limit > 0);
    long room = limit - statusKb("VmSize:") * 1024;
    Assume.assumeTrue("room left under the limit: " + room, room > (64L << 20));
    int size = (int) Math.min(Integer.MAX_VALUE - 1024L, room * 3 / 5);
    ByteBuffer page = ByteBuffer.allocateDirect(size);

    ByteBuffer server = CZelvarHtmlServer.Create(
        null, 1, false, true, true, 0, null, null, null, 0, null, 0, null, 0, null, null, null,
        null, null);
    try {
      CZelvarHtmlServer.AddWork(server, page, size);
      fail("copying " + size + " bytes with " + room + " bytes of room succeeded");
    } catch (OutOfMemoryError expected) {
      // the native bad_alloc, not a crash
      System.out.printf("out of memory test: %d bytes refused with %d bytes of room: %s%n", size,
          room, expected.getMessage());
    }
    page = null;
    // The object is intact: it still takes and optimises a page.
    byte[] small = "<p>still here</p>".getBytes(StandardCharsets.US_ASCII);
    CZelvarHtmlServer.AddWork(server, JavaTestSupport.direct(small), small.length);
    CZelvarHtmlServer.DoWork(server);
    assertEquals("<p>still here</p>",
        JavaTestSupport.text(CZelvarHtmlServer.GetRawZelvarBuffer(server, false)));
    CZelvarHtmlServer.Destroy(server);
  }

  /** The soft limit on the address space in bytes, or 0 when there is none. */
  private static long addressSpaceLimit() throws IOException {
    for (String line : Files.readAllLines(Path.of("/proc/self/limits"))) {
      if (line.startsWith("Max address space")) {
        String soft = line.substring("Max address space".length()).trim().split("\\s+")[0];
        return soft.equals("unlimited") ? 0 : Long.parseLong(soft);
      }
    }
    return 0;
  }

  private static long statusKb(String field) throws IOException {
    for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
      if (line.startsWith(field)) return Long.parseLong(line.replaceAll("[^0-9]", ""));
    }
    return 0;
  }
}
