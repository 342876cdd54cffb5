package com.zelvarpack;

import java.nio.ByteBuffer;

/**
 * Serves stored scripts back by identifier (the "JS.zp?ID" handler).
 * A handle is used by one thread at a time; Destroy it exactly once.
 */
public final class CZelvarJSServer {
  static {
    NativeLibrary.load();
  }

  private CZelvarJSServer() {}

  public static native ByteBuffer Create(String cacheDirectory);

  /**
   * A copy of the script stored under {@code id}, or null when there is
   * none. With {@code gzip} the gzip form is returned when it is smaller;
   * {@link #GetRawIdWasGzip} tells whether it was. A null id throws
   * NullPointerException.
   */
  public static native byte[] GetRawId(ByteBuffer handle, String id, boolean gzip);

  /** True once GetRawId returned a gzip form; never cleared. */
  public static native boolean GetRawIdWasGzip(ByteBuffer handle);

  public static native void Destroy(ByteBuffer handle);
}
