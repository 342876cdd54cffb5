package com.zelvarpack;

import java.io.ByteArrayInputStream;
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

  /**
   * Bytes standing for a stored sheet: a GIF signature and `size` bytes of
   * fixed-seed noise. The getters and the bridge copy them without decoding.
   */
  static byte[] sheet(int size) {
    byte[] bytes = new byte[size];
    new java.util.Random(7).nextBytes(bytes);
    System.arraycopy("GIF89a".getBytes(StandardCharsets.US_ASCII), 0, bytes, 0, 6);
    return bytes;
  }
}
