package com.zelvarpack;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotNull;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.charset.StandardCharsets;
import java.util.TreeSet;
import org.junit.Test;

/** The library's JNI exports and the jar's native methods are the same 30 names. */
public class ExportsTest {
  private static final Class<?>[] CLASSES = {CZelvarHtmlServer.class, CZelvarCssServer.class,
      CZelvarJSServer.class, CZelvarImageServer.class, CZelvarImages.class, CZelvarUtils.class};

  @Test
  public void everyNativeMethodHasItsSymbolAndNothingElseIsExported()
      throws IOException, InterruptedException {
    TreeSet<String> declared = new TreeSet<>();
    for (Class<?> type : CLASSES) {
      for (Method method : type.getDeclaredMethods()) {
        if (Modifier.isNative(method.getModifiers())) {
          // Overloads would need the long JNI names; the surface has none.
          String name = "Java_com_zelvarpack_" + type.getSimpleName() + "_" + method.getName();
          assertEquals("overloaded " + name, true, declared.add(name));
        }
      }
    }
    assertEquals(30, declared.size());

    String library = System.getProperty("zelvarpack.library");
    assertNotNull("-Dzelvarpack.library= names the shared library", library);
    Process nm = new ProcessBuilder("nm", "-D", "--defined-only", library)
        .redirectErrorStream(true).start();
    TreeSet<String> exported = new TreeSet<>();
    try (BufferedReader lines = new BufferedReader(
             new InputStreamReader(nm.getInputStream(), StandardCharsets.UTF_8))) {
      for (String line; (line = lines.readLine()) != null;) {
        String[] fields = line.trim().split("\\s+");
        String symbol = fields[fields.length - 1];
        if (symbol.startsWith("Java_")) {
          assertEquals(line, "T", fields[fields.length - 2]);
          exported.add(symbol);
        }
      }
    }
    assertEquals(0, nm.waitFor());
    assertEquals(declared, exported);
  }
}
