package com.zelvarpack.servlet;

import java.io.ByteArrayOutputStream;
import java.util.Locale;

/** Small HTTP text helpers shared by the filter and the handler servlet. */
final class HttpText {
  private HttpText() {}

  /** Whether an Accept-Encoding value takes gzip: "gzip" or "*" with a q above zero. */
  static boolean acceptsGzip(String acceptEncoding) {
    if (acceptEncoding == null) return false;
    for (String item : acceptEncoding.split(",")) {
      String[] parts = item.split(";");
      String coding = parts[0].trim().toLowerCase(Locale.ROOT);
      if (!coding.equals("gzip") && !coding.equals("*")) continue;
      double q = 1;
      for (int i = 1; i < parts.length; ++i) {
        String parameter = parts[i].trim().toLowerCase(Locale.ROOT);
        if (parameter.startsWith("q=")) {
          try {
            q = Double.parseDouble(parameter.substring(2).trim());
          } catch (NumberFormatException e) {
            q = 0;
          }
        }
      }
      return q > 0;
    }
    return false;
  }

  /** %XX escapes decoded as bytes (ASCII text expected), or null when one is broken. */
  static String percentDecode(String text) {
    ByteArrayOutputStream out = new ByteArrayOutputStream(text.length());
    for (int i = 0; i < text.length(); ++i) {
      char c = text.charAt(i);
      if (c == '%') {
        if (i + 2 >= text.length()) return null;
        int high = Character.digit(text.charAt(i + 1), 16);
        int low = Character.digit(text.charAt(i + 2), 16);
        if (high < 0 || low < 0) return null;
        out.write(high * 16 + low);
        i += 2;
      } else if (c > 0x7F) {
        return null;
      } else {
        out.write(c);
      }
    }
    return out.toString(java.nio.charset.StandardCharsets.ISO_8859_1);
  }

  /** Whether an If-None-Match value names `etag` (or is "*"). */
  static boolean matchesEtag(String ifNoneMatch, String etag) {
    if (ifNoneMatch == null) return false;
    for (String item : ifNoneMatch.split(",")) {
      String tag = item.trim();
      if (tag.startsWith("W/")) tag = tag.substring(2);
      if (tag.equals("*") || tag.equals(etag)) return true;
    }
    return false;
  }
}
