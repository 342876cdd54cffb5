package com.zelvarpack;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import java.util.zip.GZIPInputStream;

/** What the bridge tests share: pages, cache folders, gzip and ids. */
final class JavaTestSupport {
  private JavaTestSupport() {}

  static final String PAGE_URL = "http://127.0.0.1/page.html";

  /**
   * A page whose inline stylesheet and script the optimiser stores without
   * fetching anything; both are long enough that their gzip forms are
   * smaller.
   */
  static String inlinePage(int rules) {
    StringBuilder style = new StringBuilder();
    StringBuilder script = new StringBuilder();
    for (int i = 0; i < rules; ++i) {
      style.append(".rule").append(i).append(" {  color : red ;  margin : 0px  1px ; }\n");
      script.append("var value").append(i).append(" = ").append(i).append(";\n");
    }
    return "<!DOCTYPE html><html><head><title>t</title><style>" + style + "</style><script>"
        + script + "</script></head><body><p>Hello   there</p></body></html>";
  }

  static ByteBuffer direct(byte[] bytes) {
    ByteBuffer buffer = ByteBuffer.allocateDirect(bytes.length);
    buffer.put(bytes).flip();
    return buffer;
  }

  /** Runs the optimiser over `page` with no waiting for downloads. */
  static ByteBuffer optimise(Path cache, String page) {
    ByteBuffer server = CZelvarHtmlServer.Create(cache.toString(), 1, false, true, true, 0, "",
        null, "127.0.0.1", 9, null, 0, PAGE_URL, PAGE_URL.length(), "utf-8", "en", null, null,
        "Mozilla/5.0 (X11; Linux x86_64) Chrome/120.0");
    byte[] bytes = page.getBytes(StandardCharsets.UTF_8);
    CZelvarHtmlServer.AddWork(server, direct(bytes), bytes.length);
    CZelvarHtmlServer.DoWork(server);
    return server;
  }

  /** The identifier after `handler` ("CS.zp?") in a page, or null. */
  static String idAfter(String page, String handler) {
    Matcher m = Pattern.compile(Pattern.quote(handler) + "(\\{[0-9A-F-]{36}\\})").matcher(page);
    return m.find() ? m.group(1) : null;
  }

  static boolean isGzip(byte[] bytes) {
    return bytes.length > 2 && (bytes[0] & 0xFF) == 0x1F && (bytes[1] & 0xFF) == 0x8B;
  }

  static byte[] gunzip(byte[] bytes) throws IOException {
    try (InputStream in = new GZIPInputStream(new ByteArrayInputStream(bytes))) {
      return in.readAllBytes();
    }
  }

  static String text(byte[] bytes) {
    return new String(bytes, StandardCharsets.UTF_8);
  }

  static void deleteTree(Path root) throws IOException {
    if (root == null || !Files.exists(root)) return;
    try (Stream<Path> paths = Files.walk(root)) {
      for (Path p : (Iterable<Path>) paths.sorted(Comparator.reverseOrder())::iterator) {
        Files.deleteIfExists(p);
      }
    }
  }

  /** A small GIF of `width` x 1 pixels, every index 0 (a valid file, not a tiny one). */
  static byte[] gif(int width) {
    ByteArrayOutputStream out = new ByteArrayOutputStream();
    out.writeBytes("GIF89a".getBytes(StandardCharsets.US_ASCII));
    out.write(width & 0xFF);
    out.write(width >> 8);
    out.write(1);
    out.write(0);
    out.write(0x80);  // a global table of two colours
    out.write(0);
    out.write(0);
    out.writeBytes(new byte[] {0, 0, 0, (byte) 255, (byte) 255, (byte) 255});
    out.writeBytes(new byte[] {0x2C, 0, 0, 0, 0});
    out.write(width & 0xFF);
    out.write(width >> 8);
    out.writeBytes(new byte[] {1, 0, 0, 2});
    // Uncompressed LZW: a clear code before every run of codes keeps the
    // code size at 3 bits; simplest is one clear per pixel (code 4, then 0).
    BitWriter bits = new BitWriter();
    for (int i = 0; i < width; ++i) {
      bits.write(4, 3);
      bits.write(0, 3);
    }
    bits.write(5, 3);
    byte[] data = bits.bytes();
    for (int at = 0; at < data.length; at += 255) {
      int n = Math.min(255, data.length - at);
      out.write(n);
      out.write(data, at, n);
    }
    out.write(0);
    out.write(0x3B);
    return out.toByteArray();
  }

  private static final class BitWriter {
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private int current;
    private int filled;

    void write(int code, int size) {
      for (int i = 0; i < size; ++i) {
        current |= ((code >> i) & 1) << filled;
        if (++filled == 8) {
          out.write(current);
          current = 0;
          filled = 0;
        }
      }
    }

    byte[] bytes() {
      if (filled > 0) out.write(current);
      filled = 0;
      current = 0;
      return out.toByteArray();
    }
  }
}
