package com.zelvarpack;

import java.nio.ByteBuffer;

/**
 * Serves stored stylesheets back by identifier (the "CS.zp?ID" handler).
 * A handle is used by one thread at a time; Destroy it exactly once.
 */
public final class CZelvarCssServer {
  static {
    NativeLibrary.load();
  }

  private CZelvarCssServer() {}

  public static native ByteBuffer Create(String cacheDirectory);

  /**
   * A copy of the stylesheet stored under {@code id}, or null when there is
   * none. With {@code gzip} the gzip form is returned when it is smaller;
   * {@link #GetMinifiedIdWasGzip} tells whether it was. A null id throws
   * NullPointerException.
   */
  public static native byte[] GetMinifiedId(ByteBuffer handle, String id, boolean gzip);

  /** True once GetMinifiedId returned a gzip form; never cleared. */
  public static native boolean GetMinifiedIdWasGzip(ByteBuffer handle);

  public static native void Destroy(ByteBuffer handle);
}
