package com.zelvarpack.servlet;

import java.util.function.Function;

/**
 * The host's settings, read from init parameters (the filter's or the
 * servlet's, else the web application's context parameters):
 *
 * <ul>
 *   <li>{@code zelvarpack.cache} the cache folder, shared by the filter and
 *       the handler servlet (required);
 *   <li>{@code zelvarpack.timeout} seconds a page waits for its resources
 *       (default 2);
 *   <li>{@code zelvarpack.handlerPath} prefix of the handler URLs written
 *       into pages (default none: "./CS.zp?ID" beside the page);
 *   <li>{@code zelvarpack.serverAddress} host (and port) to fetch a page's
 *       relative resources from instead of the public host in its URL;
 *   <li>{@code zelvarpack.fetchForeign} also fetch resources of other hosts
 *       (default off);
 *   <li>{@code zelvarpack.keepComments} keep HTML comments (default on);
 *   <li>{@code zelvarpack.maxPageBytes} larger pages pass through unchanged
 *       (default 4 MiB).
 * </ul>
 */
public final class ZelvarPackSettings {
  public static final String CACHE = "zelvarpack.cache";
  public static final String TIMEOUT = "zelvarpack.timeout";
  public static final String HANDLER_PATH = "zelvarpack.handlerPath";
  public static final String SERVER_ADDRESS = "zelvarpack.serverAddress";
  public static final String FETCH_FOREIGN = "zelvarpack.fetchForeign";
  public static final String KEEP_COMMENTS = "zelvarpack.keepComments";
  public static final String MAX_PAGE_BYTES = "zelvarpack.maxPageBytes";

  public final String cacheFolder;
  public final int timeoutSeconds;
  public final String handlerPath;
  public final String serverAddress;
  public final boolean fetchForeign;
  public final boolean keepComments;
  public final int maxPageBytes;

  private ZelvarPackSettings(Function<String, String> parameters) {
    cacheFolder = parameters.apply(CACHE);
    if (cacheFolder == null || cacheFolder.isEmpty()) {
      throw new IllegalArgumentException(CACHE + " must name the cache folder");
    }
    timeoutSeconds = number(parameters, TIMEOUT, 2, 0, 600);
    handlerPath = text(parameters, HANDLER_PATH);
    serverAddress = text(parameters, SERVER_ADDRESS);
    fetchForeign = flag(parameters, FETCH_FOREIGN, false);
    keepComments = flag(parameters, KEEP_COMMENTS, true);
    maxPageBytes = number(parameters, MAX_PAGE_BYTES, 4 << 20, 0, Integer.MAX_VALUE / 4);
  }

  /** Settings from `parameters`, then `fallback` for names it lacks. */
  public static ZelvarPackSettings read(
      Function<String, String> parameters, Function<String, String> fallback) {
    return new ZelvarPackSettings(name -> {
      String value = parameters.apply(name);
      return value != null ? value : fallback.apply(name);
    });
  }

  private static String text(Function<String, String> parameters, String name) {
    String value = parameters.apply(name);
    return value == null || value.trim().isEmpty() ? null : value.trim();
  }

  private static int number(
      Function<String, String> parameters, String name, int otherwise, int min, int max) {
    String value = text(parameters, name);
    if (value == null) return otherwise;
    try {
      int n = Integer.parseInt(value);
      if (n >= min && n <= max) return n;
    } catch (NumberFormatException e) {
      // reported below
    }
    throw new IllegalArgumentException(name + " must be a number from " + min + " to " + max);
  }

  private static boolean flag(Function<String, String> parameters, String name, boolean otherwise) {
    String value = text(parameters, name);
    if (value == null) return otherwise;
    switch (value.toLowerCase(java.util.Locale.ROOT)) {
      case "on": case "true": case "yes": case "1": return true;
      case "off": case "false": case "no": case "0": return false;
      default: throw new IllegalArgumentException(name + " must be on or off");
    }
  }
}
