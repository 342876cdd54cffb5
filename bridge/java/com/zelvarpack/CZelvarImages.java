package com.zelvarpack;

import java.nio.ByteBuffer;

/** One stored sprite sheet, as a CZelvarImageServer getter found it. */
public final class CZelvarImages {
  static {
    NativeLibrary.load();
  }

  private CZelvarImages() {}

  /** A copy of the sheet's encoded bytes (served as they are, never gzipped). */
  public static native byte[] GetRawImageZelvarBuffer(ByteBuffer handle);

  /** Frees the sheet; null does nothing. Call it once per getter result. */
  public static native void Destroy(ByteBuffer handle);
}
