package com.zelvarpack.servlet;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.io.OutputStreamWriter;
import java.io.PrintWriter;
import java.nio.charset.Charset;
import java.nio.charset.StandardCharsets;
import java.util.Locale;
import javax.servlet.ServletOutputStream;
import javax.servlet.WriteListener;
import javax.servlet.http.HttpServletResponse;
import javax.servlet.http.HttpServletResponseWrapper;

/**
 * Holds back the body of a response (and its Content-Length) while the
 * application writes it, up to a limit; past the limit, once the
 * application flushes a response that is not a page, or when it writes
 * without blocking, it lets the rest go straight through. Headers and status go to the real response as they are
 * set.
 */
final class CapturingResponse extends HttpServletResponseWrapper {
  private final HttpServletResponse real;
  private final int limit;
  private final ByteArrayOutputStream held = new ByteArrayOutputStream();
  private long contentLength = -1;
  private boolean passing;
  private ServletOutputStream stream;
  private PrintWriter writer;

  CapturingResponse(HttpServletResponse real, int limit) {
    super(real);
    this.real = real;
    this.limit = limit;
  }

  /** True once the body went (or is going) straight to the client. */
  boolean passedThrough() {
    return passing;
  }

  byte[] heldBytes() throws IOException {
    if (writer != null) writer.flush();
    return held.toByteArray();
  }

  long declaredLength() {
    return contentLength;
  }

  /** Sends what is held, and everything after it, to the real response. */
  void passThrough() throws IOException {
    if (passing) return;
    if (writer != null) writer.flush();
    passing = true;
    if (contentLength >= 0) real.setContentLengthLong(contentLength);
    if (held.size() > 0) held.writeTo(real.getOutputStream());
    held.reset();
  }

  private void write(byte[] bytes, int offset, int count) throws IOException {
    if (!passing && held.size() + (long) count > limit) passThrough();
    if (passing) {
      real.getOutputStream().write(bytes, offset, count);
    } else {
      held.write(bytes, offset, count);
    }
  }

  @Override
  public ServletOutputStream getOutputStream() {
    if (writer != null) throw new IllegalStateException("getWriter() was called");
    if (stream == null) {
      stream = new ServletOutputStream() {
        @Override
        public void write(int b) throws IOException {
          CapturingResponse.this.write(new byte[] {(byte) b}, 0, 1);
        }

        @Override
        public void write(byte[] bytes, int offset, int count) throws IOException {
          CapturingResponse.this.write(bytes, offset, count);
        }

        @Override
        public void flush() throws IOException {
          if (passing) real.getOutputStream().flush();
        }

        @Override
        public boolean isReady() {
          if (!passing) return true;
          try {
            return real.getOutputStream().isReady();
          } catch (IOException e) {
            return false;
          }
        }

        // Non-blocking output is not held back: the response goes through
        // as the application writes it.
        @Override
        public void setWriteListener(WriteListener listener) {
          try {
            passThrough();
            real.getOutputStream().setWriteListener(listener);
          } catch (IOException e) {
            throw new IllegalStateException(e);
          }
        }
      };
    }
    return stream;
  }

  @Override
  public PrintWriter getWriter() {
    if (stream != null && writer == null) {
      throw new IllegalStateException("getOutputStream() was called");
    }
    if (writer == null) {
      String encoding = getCharacterEncoding();
      Charset charset = encoding != null && Charset.isSupported(encoding)
          ? Charset.forName(encoding) : StandardCharsets.ISO_8859_1;
      OutputStream out = new OutputStream() {
        @Override
        public void write(int b) throws IOException {
          CapturingResponse.this.write(new byte[] {(byte) b}, 0, 1);
        }

        @Override
        public void write(byte[] bytes, int offset, int count) throws IOException {
          CapturingResponse.this.write(bytes, offset, count);
        }
      };
      writer = new PrintWriter(new OutputStreamWriter(out, charset));
    }
    return writer;
  }

  @Override
  public void setContentLength(int length) {
    setContentLengthLong(length);
  }

  @Override
  public void setContentLengthLong(long length) {
    if (passing) {
      real.setContentLengthLong(length);
    } else {
      contentLength = length;
    }
  }

  @Override
  public void setHeader(String name, String value) {
    if (isContentLength(name)) {
      setContentLengthLong(value == null ? -1 : parse(value));
    } else {
      super.setHeader(name, value);
    }
  }

  @Override
  public void addHeader(String name, String value) {
    if (isContentLength(name)) {
      setContentLengthLong(parse(value));
    } else {
      super.addHeader(name, value);
    }
  }

  @Override
  public void setIntHeader(String name, int value) {
    if (isContentLength(name)) {
      setContentLengthLong(value);
    } else {
      super.setIntHeader(name, value);
    }
  }

  @Override
  public void addIntHeader(String name, int value) {
    if (isContentLength(name)) {
      setContentLengthLong(value);
    } else {
      super.addIntHeader(name, value);
    }
  }

  @Override
  public void flushBuffer() throws IOException {
    // A page is held until it is complete; anything else may go now.
    if (!isPage()) passThrough();
    if (writer != null) writer.flush();
    if (passing) real.flushBuffer();
  }

  @Override
  public void resetBuffer() {
    if (passing) {
      real.resetBuffer();
    } else {
      if (writer != null) writer.flush();
      held.reset();
    }
  }

  @Override
  public void reset() {
    super.reset();
    resetBuffer();
    contentLength = -1;
  }

  @Override
  public boolean isCommitted() {
    return passing && real.isCommitted();
  }

  /** Whether the response so far is a complete-able HTML page the filter may change. */
  boolean isPage() {
    String type = getContentType();
    return getStatus() == HttpServletResponse.SC_OK && type != null
        && type.toLowerCase(Locale.ROOT).startsWith("text/html")
        && !real.containsHeader("Content-Encoding");
  }

  private static boolean isContentLength(String name) {
    return "Content-Length".equalsIgnoreCase(name);
  }

  private static long parse(String value) {
    try {
      return Long.parseLong(value.trim());
    } catch (NumberFormatException e) {
      return -1;
    }
  }
}
