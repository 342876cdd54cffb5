package com.zelvarpack;

import java.net.InetAddress;
import java.net.UnknownHostException;

/**
 * Loopback addresses of this process's own, made as the C++ and browser
 * tests make theirs (127.(kind<<6 | pid>>16 & 63).(pid>>8 & 255).(pid &
 * 255)), so that servers on fixed ports, which the engine's downloads
 * need, do not meet those of tests running in parallel.
 */
public final class LoopbackAddresses {
  private LoopbackAddresses() {}

  public static InetAddress forThisProcess(int kind) {
    long pid = ProcessHandle.current().pid();
    byte[] bytes = {127, (byte) (((kind & 3) << 6) | ((pid >> 16) & 0x3F)),
        (byte) ((pid >> 8) & 0xFF), (byte) (pid & 0xFF)};
    try {
      return InetAddress.getByAddress(bytes);
    } catch (UnknownHostException e) {
      throw new IllegalStateException(e);
    }
  }
}
