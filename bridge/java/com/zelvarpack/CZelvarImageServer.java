package com.zelvarpack;

import java.nio.ByteBuffer;

/**
 * Finds stored sprite sheets by identifier (the "IS.zp?ID" handler). Each
 * getter returns a new {@link CZelvarImages} handle, which the caller
 * destroys with {@link CZelvarImages#Destroy}, or null when the sheet is not
 * stored in that getter's folder. A null id throws NullPointerException.
 * A handle is used by one thread at a time; Destroy it exactly once.
 */
public final class CZelvarImageServer {
  static {
    NativeLibrary.load();
  }

  private CZelvarImageServer() {}

  public static native ByteBuffer Create(String cacheDirectory);

  public static native ByteBuffer GetGifId(ByteBuffer handle, String id);

  public static native ByteBuffer GetJpgId(ByteBuffer handle, String id);

  public static native ByteBuffer GetPng24Id(ByteBuffer handle, String id);

  public static native ByteBuffer GetPng32Id(ByteBuffer handle, String id);

  public static native void Destroy(ByteBuffer handle);
}
