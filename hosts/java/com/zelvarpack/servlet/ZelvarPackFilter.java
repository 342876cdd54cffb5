package com.zelvarpack.servlet;

import com.zelvarpack.CZelvarHtmlServer;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.Condition;
import java.util.concurrent.locks.ReentrantLock;
import javax.servlet.Filter;
import javax.servlet.FilterChain;
import javax.servlet.FilterConfig;
import javax.servlet.ServletException;
import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletResponse;

/**
 * Optimises the HTML pages of a web application on their way out: holds the
 * page back, runs it through the page optimiser (which fetches the page's
 * stylesheets, scripts and images over HTTP, combines them into the cache
 * folder and rewrites the page to load them from ".../CS.zp?ID",
 * ".../JS.zp?ID" and ".../IS.zp?ID", answered by {@link
 * ZelvarPackHandlerServlet}) and sends the new page, gzipped when the client
 * accepts it.
 *
 * <p>Only a complete 200 text/html answer to a GET without Range, not
 * already encoded and at most maxPageBytes long, is changed; everything else
 * passes through as the application wrote it. Any failure of the optimiser
 * sends the original page: a page that works without the filter works with
 * it. A changed page loses the application's ETag and Last-Modified (they
 * describe other bytes) and gets its own Content-Length.
 *
 * <p>Settings: see {@link ZelvarPackSettings}. Each request uses its own
 * optimiser, so any number of pages are optimised at once. The optimiser
 * fetches from this same server: give it threads to spare.
 */
public class ZelvarPackFilter implements Filter {
  private ZelvarPackSettings settings;
  private FilterConfig config;
  private final ReentrantLock lock = new ReentrantLock();
  private final Condition idle = lock.newCondition();
  private int pagesInWork;  // guarded by lock
  private boolean anyPage;  // guarded by lock

  @Override
  public void init(FilterConfig filterConfig) throws ServletException {
    config = filterConfig;
    try {
      settings = ZelvarPackSettings.read(
          filterConfig::getInitParameter, filterConfig.getServletContext()::getInitParameter);
    } catch (IllegalArgumentException e) {
      throw new ServletException(e.getMessage(), e);
    }
  }

  @Override
  public void doFilter(ServletRequest req, ServletResponse res, FilterChain chain)
      throws IOException, ServletException {
    if (!(req instanceof HttpServletRequest) || !(res instanceof HttpServletResponse)) {
      chain.doFilter(req, res);
      return;
    }
    HttpServletRequest request = (HttpServletRequest) req;
    HttpServletResponse response = (HttpServletResponse) res;
    String uri = request.getRequestURI();
    if (!"GET".equals(request.getMethod()) || request.getHeader("Range") != null
        || ZelvarPackHandlerServlet.isHandlerName(uri.substring(uri.lastIndexOf('/') + 1))) {
      chain.doFilter(request, response);
      return;
    }
    CapturingResponse captured = new CapturingResponse(response, settings.maxPageBytes);
    chain.doFilter(request, captured);
    if (captured.passedThrough() || !captured.isPage()) {
      captured.passThrough();
      return;
    }
    byte[] page = captured.heldBytes();
    byte[] optimised = null;
    boolean gzip = false;
    boolean acceptsGzip = HttpText.acceptsGzip(request.getHeader("Accept-Encoding"));
    try {
      ByteBuffer server = optimise(request, page);
      try {
        optimised = CZelvarHtmlServer.GetRawZelvarBuffer(server, acceptsGzip);
        gzip = CZelvarHtmlServer.GetRawZelvarBufferWasGzip(server);
      } finally {
        CZelvarHtmlServer.Destroy(server);
      }
    } catch (RuntimeException | OutOfMemoryError | UnsatisfiedLinkError e) {
      config.getServletContext().log("zelvarpack: " + uri + " sent unchanged", e);
      optimised = null;
    }
    if (optimised == null || (!gzip && Arrays.equals(optimised, page))) {
      captured.passThrough();
      return;
    }
    response.setHeader("ETag", null);
    response.setHeader("Last-Modified", null);
    response.setHeader("Accept-Ranges", null);
    if (acceptsGzip) response.addHeader("Vary", "Accept-Encoding");
    if (gzip) response.setHeader("Content-Encoding", "gzip");
    response.setContentLength(optimised.length);
    response.getOutputStream().write(optimised);
  }

  private ByteBuffer optimise(HttpServletRequest request, byte[] page) {
    String url = request.getRequestURL().toString();
    if (request.getQueryString() != null) url += "?" + request.getQueryString();
    String client = request.getRemoteAddr();
    String serverAddress = settings.serverAddress;
    ByteBuffer server = CZelvarHtmlServer.Create(settings.cacheFolder, 1, settings.fetchForeign,
        settings.keepComments, serverAddress == null, settings.timeoutSeconds,
        settings.handlerPath, null, client, utf8Length(client), serverAddress,
        utf8Length(serverAddress), url, utf8Length(url), request.getHeader("Accept-Charset"),
        request.getHeader("Accept-Language"), null, null, request.getHeader("User-Agent"));
    enter();
    try {
      ByteBuffer bytes = ByteBuffer.allocateDirect(page.length);
      bytes.put(page).flip();
      CZelvarHtmlServer.AddWork(server, bytes, page.length);
      CZelvarHtmlServer.DoWork(server);
      return server;
    } catch (RuntimeException | Error e) {
      CZelvarHtmlServer.Destroy(server);
      throw e;
    } finally {
      leave();
    }
  }

  private static int utf8Length(String text) {
    return text == null ? 0 : text.getBytes(java.nio.charset.StandardCharsets.UTF_8).length;
  }

  private void enter() {
    lock.lock();
    try {
      ++pagesInWork;
      anyPage = true;
    } finally {
      lock.unlock();
    }
  }

  private void leave() {
    lock.lock();
    try {
      if (--pagesInWork == 0) idle.signalAll();
    } finally {
      lock.unlock();
    }
  }

  /**
   * Waits for the pages in work, then for the downloads they may have left
   * behind (each is bounded by the time-out), so that none is still inside
   * the HTTP library when the virtual machine exits.
   */
  @Override
  public void destroy() {
    long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(2L * settings.timeoutSeconds + 1);
    boolean wait;
    lock.lock();
    try {
      wait = anyPage;
      while (pagesInWork > 0) {
        long left = deadline - System.nanoTime();
        if (left <= 0) break;
        idle.awaitNanos(left);
      }
    } catch (InterruptedException e) {
      Thread.currentThread().interrupt();
      return;
    } finally {
      lock.unlock();
    }
    if (!wait) return;
    try {
      TimeUnit.SECONDS.sleep(settings.timeoutSeconds);
    } catch (InterruptedException e) {
      Thread.currentThread().interrupt();
    }
  }
}
