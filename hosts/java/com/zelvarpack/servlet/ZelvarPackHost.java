package com.zelvarpack.servlet;

import java.io.File;
import java.util.EnumSet;
import java.util.LinkedHashMap;
import java.util.Map;
import javax.servlet.DispatcherType;
import org.eclipse.jetty.server.Server;
import org.eclipse.jetty.server.ServerConnector;
import org.eclipse.jetty.server.SymlinkAllowedResourceAliasChecker;
import org.eclipse.jetty.servlet.DefaultServlet;
import org.eclipse.jetty.servlet.FilterHolder;
import org.eclipse.jetty.servlet.ServletContextHandler;
import org.eclipse.jetty.servlet.ServletHolder;

/**
 * A runnable example: serves a folder of pages with Jetty, the filter in
 * front of every request and the handler servlet at "*.zp".
 *
 * <pre>
 * ZelvarPackHost --root DIR --cache DIR [--listen ADDRESS:PORT]
 *                [--timeout SECONDS] [--handler-path PATH] [--server-address HOST]
 *                [--fetch-foreign on|off] [--keep-comments on|off] [--max-page-bytes N]
 * </pre>
 *
 * Prints "http://ADDRESS:PORT/" once it listens (the port is the kernel's
 * choice when 0 is asked for) and runs until it is stopped; on the way out
 * the filter waits for the downloads of the pages in work.
 */
public final class ZelvarPackHost {
  private ZelvarPackHost() {}

  public static void main(String[] args) throws Exception {
    Map<String, String> options = new LinkedHashMap<>();
    for (int i = 0; i < args.length; i += 2) {
      if (!args[i].startsWith("--") || i + 1 >= args.length) usage("expected --NAME VALUE pairs");
      options.put(args[i].substring(2), args[i + 1]);
    }
    String root = options.remove("root");
    String listen = options.getOrDefault("listen", "127.0.0.1:0");
    options.remove("listen");
    if (root == null || !new File(root).isDirectory()) usage("--root must name a folder");
    Map<String, String> parameters = new LinkedHashMap<>();
    String[][] names = {{"cache", ZelvarPackSettings.CACHE},
        {"timeout", ZelvarPackSettings.TIMEOUT}, {"handler-path", ZelvarPackSettings.HANDLER_PATH},
        {"server-address", ZelvarPackSettings.SERVER_ADDRESS},
        {"fetch-foreign", ZelvarPackSettings.FETCH_FOREIGN},
        {"keep-comments", ZelvarPackSettings.KEEP_COMMENTS},
        {"max-page-bytes", ZelvarPackSettings.MAX_PAGE_BYTES}};
    for (String[] name : names) {
      String value = options.remove(name[0]);
      if (value != null) parameters.put(name[1], value);
    }
    if (!options.isEmpty()) usage("unknown option --" + options.keySet().iterator().next());
    ZelvarPackSettings.read(parameters::get, name -> null);  // reports bad values now

    int colon = listen.lastIndexOf(':');
    if (colon < 0) usage("--listen needs ADDRESS:PORT");
    Server server = new Server();
    ServerConnector connector = new ServerConnector(server);
    connector.setHost(listen.substring(0, colon));
    connector.setPort(Integer.parseInt(listen.substring(colon + 1)));
    server.addConnector(connector);

    ServletContextHandler context = new ServletContextHandler(ServletContextHandler.NO_SESSIONS);
    context.setContextPath("/");
    context.setResourceBase(new File(root).getAbsolutePath());
    context.setWelcomeFiles(new String[] {"index.html"});
    // Symbolic links inside the root are followed, so packaged libraries can
    // be linked in beside the pages.
    context.addAliasCheck(new SymlinkAllowedResourceAliasChecker(context));
    parameters.forEach(context::setInitParameter);
    context.addFilter(new FilterHolder(new ZelvarPackFilter()), "/*",
        EnumSet.of(DispatcherType.REQUEST));
    context.addServlet(new ServletHolder("zelvarpack-handlers", new ZelvarPackHandlerServlet()),
        "*.zp");
    ServletHolder files = new ServletHolder("files", DefaultServlet.class);
    files.setInitParameter("dirAllowed", "false");
    files.setInitParameter("etags", "true");
    context.addServlet(files, "/");
    server.setHandler(context);
    server.setStopAtShutdown(true);
    server.setStopTimeout(30_000);
    server.start();
    System.out.println("http://" + connector.getHost() + ":" + connector.getLocalPort() + "/");
    System.out.flush();
    server.join();
  }

  private static void usage(String problem) {
    System.err.println("ZelvarPackHost: " + problem);
    System.err.println("usage: ZelvarPackHost --root DIR --cache DIR [--listen ADDRESS:PORT]"
        + " [--timeout SECONDS] [--handler-path PATH] [--server-address HOST]"
        + " [--fetch-foreign on|off] [--keep-comments on|off] [--max-page-bytes N]");
    System.exit(2);
  }
}
