package com.zelvarpack;

import java.nio.ByteBuffer;

/**
 * The page optimiser: takes one HTML page, fetches and combines the
 * stylesheets, scripts and images it references, and writes the page again
 * with handler URLs ("CS.zp?ID", "JS.zp?ID", "IS.zp?ID").
 *
 * <p>Calling pattern: {@link #Create}, {@link #AddWork} the page, {@link
 * #DoWork} once, read the results through the getters, {@link #Destroy}
 * exactly once. A handle is used by one thread at a time. Every method but
 * Destroy throws NullPointerException for a null handle and
 * IllegalArgumentException for a buffer that is not a handle of this class.
 */
public final class CZelvarHtmlServer {
  static {
    NativeLibrary.load();
  }

  private CZelvarHtmlServer() {}

  /**
   * A new optimiser. Strings may be null (absent). The three lengths count
   * the modified UTF-8 bytes of their strings to use (cut to the string's
   * length). The forwarded values and the user agent are copied.
   *
   * @param cacheDirectory the cache root, shared with the handler servers
   * @param optimise non-zero: stylesheets, images and scripts start on
   * @param fetchForeignHosts fetch resources of other hosts than the page's
   * @param keepComments keep HTML comments in the new page
   * @param useOwnHost false: relative resources come from serverAddress
   * @param timeoutSeconds how long DoWork waits for the downloads
   * @param handlerPath prefix of the handler URLs ("" or null: "./")
   * @param callerContext kept for the caller, never used
   * @param clientAddress sent as X-Forwarded-For
   * @param serverAddress host (and port) relative resources are fetched from
   * @param pageUrl the page's own address
   * @param forwardA the client's Accept-Charset
   * @param forwardB the client's Accept-Language
   * @param forwardC passed along, not read
   * @param forwardD passed along, not read
   * @param userAgent the client's User-Agent
   */
  public static native ByteBuffer Create(String cacheDirectory, int optimise,
      boolean fetchForeignHosts, boolean keepComments, boolean useOwnHost, int timeoutSeconds,
      String handlerPath, Object callerContext, String clientAddress, int clientAddressLength,
      String serverAddress, int serverAddressLength, String pageUrl, int pageUrlLength,
      String forwardA, String forwardB, String forwardC, String forwardD, String userAgent);

  /**
   * Appends {@code count} bytes of a direct buffer, read in place from its
   * start (never past its capacity). A heap buffer adds nothing.
   */
  public static native void AddWork(ByteBuffer handle, ByteBuffer data, int count);

  /** Runs the optimisation once; returns after at most the time-out for downloads. */
  public static native void DoWork(ByteBuffer handle);

  /** Decoded bytes of the page's resources as they were fetched. */
  public static native int GetBytesBefore(ByteBuffer handle);

  /** {@code pageBytes} plus the bytes of the combined results and the resources left. */
  public static native int GetBytesAfter(ByteBuffer handle, int pageBytes, boolean gzip);

  public static native int GetRequestsBefore(ByteBuffer handle);

  public static native int GetRequestsAfter(ByteBuffer handle);

  /** The content identifier of the new page. */
  public static native String GetId(ByteBuffer handle);

  /**
   * A copy of the new page, gzipped when {@code compressed} and that is
   * smaller; {@link #GetRawZelvarBufferWasGzip} tells which.
   */
  public static native byte[] GetRawZelvarBuffer(ByteBuffer handle, boolean compressed);

  public static native boolean GetRawZelvarBufferWasGzip(ByteBuffer handle);

  /** Frees the optimiser; null does nothing. The handle is invalid afterwards. */
  public static native void Destroy(ByteBuffer handle);
}
