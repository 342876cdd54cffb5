package com.zelvarpack;

/**
 * Loads libZelvarPackCore once, from java.library.path, before the first
 * native method of any class of this package runs.
 */
final class NativeLibrary {
  static {
    System.loadLibrary("ZelvarPackCore");
  }

  private NativeLibrary() {}

  /** Does nothing itself: calling it runs the class's loading once. */
  static void load() {}
}
