package com.zelvarpack;

import java.nio.ByteBuffer;

/** HTTP fetching. A handle may be used by one thread at a time; Destroy it once. */
public final class CZelvarUtils {
  static {
    NativeLibrary.load();
  }

  private CZelvarUtils() {}

  public static native ByteBuffer Create();

  /**
   * The decoded body of one GET of {@code address} (port 80 for http, 443
   * for https, whatever the address says), empty on any failure.
   * {@code timeoutSeconds} bounds connecting and each wait (0 or less: none).
   */
  public static native byte[] DownloadUrl(ByteBuffer handle, String address, int timeoutSeconds);

  public static native void Destroy(ByteBuffer handle);
}
