package com.zelvarpack.servlet;

import com.zelvarpack.CZelvarCssServer;
import com.zelvarpack.CZelvarImageServer;
import com.zelvarpack.CZelvarImages;
import com.zelvarpack.CZelvarJSServer;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.List;
import java.util.function.BiFunction;
import javax.servlet.ServletException;
import javax.servlet.http.HttpServlet;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletResponse;

/**
 * Answers the handler URLs the filter writes into pages: ".../CS.zp?ID"
 * (combined stylesheets), ".../JS.zp?ID" (combined scripts) and
 * ".../IS.zp?ID" (sprite sheets, and the 1x1 transparent GIF that placed
 * images show), from the cache folder. Map it to "*.zp".
 *
 * <p>Answers are named by their content, so they are cached for a year as
 * immutable, with the id as ETag (304 on If-None-Match). Stylesheets and
 * scripts are sent gzipped when the client accepts it and that form is
 * smaller. An unknown or malformed id, or any other name, is 404. Each
 * request uses its own native objects, so any number run at once.
 */
public class ZelvarPackHandlerServlet extends HttpServlet {
  private static final long serialVersionUID = 1L;
  static final String PLACEHOLDER_ID = "{2F50498C-8605-468F-991E-AEABAA95E643}";
  static final String CACHE_CONTROL = "public, max-age=31536000, immutable";
  private static final byte[] TRANSPARENT_GIF = {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0,
      (byte) 0x80, 0, 0, 0, 0, 0, (byte) 0xFF, (byte) 0xFF, (byte) 0xFF, 0x21, (byte) 0xF9, 4, 1,
      0, 0, 0, 0, 0x2C, 0, 0, 0, 0, 1, 0, 1, 0, 0, 2, 2, 0x44, 1, 0, 0x3B};

  private transient ZelvarPackSettings settings;

  @Override
  public void init() throws ServletException {
    try {
      settings = ZelvarPackSettings.read(
          getServletConfig()::getInitParameter, getServletContext()::getInitParameter);
    } catch (IllegalArgumentException e) {
      throw new ServletException(e.getMessage(), e);
    }
  }

  @Override
  protected void doGet(HttpServletRequest request, HttpServletResponse response)
      throws IOException {
    String uri = request.getRequestURI();
    String name = uri.substring(uri.lastIndexOf('/') + 1);
    String query = request.getQueryString();
    String id = query == null ? null : HttpText.percentDecode(query);
    if (id != null && id.indexOf('#') >= 0) id = id.substring(0, id.indexOf('#'));
    if (id == null || id.isEmpty() || !isHandlerName(name)) {
      response.sendError(HttpServletResponse.SC_NOT_FOUND);
      return;
    }
    String etag = "\"" + id + "\"";
    boolean gzip = HttpText.acceptsGzip(request.getHeader("Accept-Encoding"));
    Answer answer;
    try {
      answer = answer(name, id, gzip);
    } catch (RuntimeException | OutOfMemoryError e) {
      // A failure of the engine costs this one resource, not the server.
      getServletContext().log("zelvarpack: " + name + "?" + id + " failed", e);
      response.sendError(HttpServletResponse.SC_SERVICE_UNAVAILABLE);
      return;
    }
    if (answer == null) {
      response.sendError(HttpServletResponse.SC_NOT_FOUND);
      return;
    }
    response.setHeader("Cache-Control", CACHE_CONTROL);
    response.setHeader("ETag", etag);
    if (answer.varies) response.setHeader("Vary", "Accept-Encoding");
    if (HttpText.matchesEtag(request.getHeader("If-None-Match"), etag)) {
      response.setStatus(HttpServletResponse.SC_NOT_MODIFIED);
      return;
    }
    response.setContentType(answer.type);
    if (answer.gzip) response.setHeader("Content-Encoding", "gzip");
    response.setContentLength(answer.body.length);
    if (!"HEAD".equals(request.getMethod())) response.getOutputStream().write(answer.body);
  }

  static boolean isHandlerName(String name) {
    return name.equals("CS.zp") || name.equals("JS.zp") || name.equals("IS.zp");
  }

  private static final class Answer {
    final byte[] body;
    final String type;
    final boolean gzip;
    final boolean varies;

    Answer(byte[] body, String type, boolean gzip, boolean varies) {
      this.body = body;
      this.type = type;
      this.gzip = gzip;
      this.varies = varies;
    }
  }

  private Answer answer(String name, String id, boolean acceptsGzip) {
    String cache = settings.cacheFolder;
    if (name.equals("CS.zp")) {
      ByteBuffer server = CZelvarCssServer.Create(cache);
      try {
        byte[] body = CZelvarCssServer.GetMinifiedId(server, id, acceptsGzip);
        return body == null ? null
            : new Answer(body, "text/css", CZelvarCssServer.GetMinifiedIdWasGzip(server), true);
      } finally {
        CZelvarCssServer.Destroy(server);
      }
    }
    if (name.equals("JS.zp")) {
      ByteBuffer server = CZelvarJSServer.Create(cache);
      try {
        byte[] body = CZelvarJSServer.GetRawId(server, id, acceptsGzip);
        return body == null ? null
            : new Answer(body, "text/javascript", CZelvarJSServer.GetRawIdWasGzip(server), true);
      } finally {
        CZelvarJSServer.Destroy(server);
      }
    }
    if (id.equals(PLACEHOLDER_ID)) return new Answer(TRANSPARENT_GIF, "image/gif", false, false);
    ByteBuffer server = CZelvarImageServer.Create(cache);
    try {
      // The id does not say which set a sheet came from: ask each in turn.
      List<BiFunction<ByteBuffer, String, ByteBuffer>> getters =
          List.of(CZelvarImageServer::GetGifId, CZelvarImageServer::GetJpgId,
              CZelvarImageServer::GetPng24Id, CZelvarImageServer::GetPng32Id);
      for (BiFunction<ByteBuffer, String, ByteBuffer> getter : getters) {
        ByteBuffer images = getter.apply(server, id);
        if (images == null) continue;
        try {
          byte[] body = CZelvarImages.GetRawImageZelvarBuffer(images);
          return new Answer(body, imageType(body), false, false);
        } finally {
          CZelvarImages.Destroy(images);
        }
      }
      return null;
    } finally {
      CZelvarImageServer.Destroy(server);
    }
  }

  /** The sheet's type by its first bytes: the getters say which set, not which encoding. */
  static String imageType(byte[] body) {
    if (body.length >= 4 && body[0] == 'G' && body[1] == 'I' && body[2] == 'F' && body[3] == '8') {
      return "image/gif";
    }
    if (body.length >= 8 && (body[0] & 0xFF) == 0x89 && body[1] == 'P' && body[2] == 'N'
        && body[3] == 'G') {
      return "image/png";
    }
    if (body.length >= 3 && (body[0] & 0xFF) == 0xFF && (body[1] & 0xFF) == 0xD8
        && (body[2] & 0xFF) == 0xFF) {
      return "image/jpeg";
    }
    return "application/octet-stream";
  }
}
