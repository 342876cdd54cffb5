// zelvarpack serve, run as a real process on this process's loopback address
// and spoken to over real sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/loopback_servers.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_css_server.h"
#include "zelvarpack/zelvar_image_server.h"
#include "zelvarpack/zelvar_js_server.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

constexpr char kPlaceholder[] = "{2F50498C-8605-468F-991E-AEABAA95E643}";

struct Reply {
  int status = 0;
  std::string head;
  std::string body;
  std::string Header(const std::string& name) const {
    const std::size_t at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "";
    const std::size_t start = at + name.size() + 4;
    return head.substr(start, head.find("\r\n", start) - start);
  }
};

// The tool serving a root and a cache, stopped when the object goes.
class ServeProcess {
 public:
  ServeProcess(const std::string& root, const std::string& cache) {
    int out[2];
    EXPECT_EQ(::pipe(out), 0);
    address_ = LoopbackAddress(1);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], 1);
      ::close(out[0]);
      const std::string listen = address_ + ":0";
      ::execl(ZP_TOOL_PATH, ZP_TOOL_PATH, "serve", "--listen", listen.c_str(), "--root",
              root.c_str(), "--cache", cache.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(out[1]);
    std::string line;
    char c;
    while (::read(out[0], &c, 1) == 1 && c != '\n') line += c;
    ::close(out[0]);
    const std::size_t colon = line.rfind(':');
    if (colon != std::string::npos) port_ = std::atoi(line.c_str() + colon + 1);
    EXPECT_EQ(line, "http://" + address_ + ":" + std::to_string(port_) + "/");
  }
  ~ServeProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      int status;
      ::waitpid(pid_, &status, 0);
    }
  }
  ServeProcess(const ServeProcess&) = delete;
  ServeProcess& operator=(const ServeProcess&) = delete;

  // A connected socket, or -1.
  int Connect() const {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port_));
    ::inet_pton(AF_INET, address_.c_str(), &to.sin_addr);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
      ::close(fd);
      return -1;
    }
    return fd;
  }

  // Sends `raw` and reads the answer up to the server's close.
  Reply Send(const std::string& raw) const {
    Reply reply;
    const int fd = Connect();
    if (fd < 0) return reply;
    ::send(fd, raw.data(), raw.size(), MSG_NOSIGNAL);
    std::string all;
    char chunk[8192];
    ssize_t got;
    while ((got = ::recv(fd, chunk, sizeof chunk, 0)) > 0) all.append(chunk, got);
    ::close(fd);
    const std::size_t end = all.find("\r\n\r\n");
    if (all.compare(0, 9, "HTTP/1.1 ") != 0 || end == std::string::npos) return reply;
    reply.status = std::atoi(all.c_str() + 9);
    reply.head = all.substr(0, end + 2);
    reply.body = all.substr(end + 4);
    return reply;
  }
  Reply Get(const std::string& target, const std::string& headers = "") const {
    return Send("GET " + target + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n");
  }

 private:
  std::string address_;
  int port_ = 0;
  pid_t pid_ = -1;
};

class ServeTool : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(Root() + "/sub");
    std::filesystem::create_directories(Cache());
    WriteWholeFile(Root() + "/index.html", "<p>home</p>");
    WriteWholeFile(Root() + "/sub/page.html", "<p>sub</p>");
    WriteWholeFile(Root() + "/sub/style.css", "p{}");
    WriteWholeFile(dir_.File("secret.txt"), "outside the root");

    std::string sheet;
    for (int i = 0; i < 200; ++i) sheet += ".rule" + std::to_string(i) + " { color : red ; }\n";
    CZelvarCssServer css(const_cast<char*>(Cache().c_str()));
    std::string name = "http://127.0.0.1/a.css";
    css.AddWork(name.data(), reinterpret_cast<unsigned char*>(sheet.data()),
                static_cast<std::int32_t>(sheet.size()));
    css.DoWork();
    cssId_ = css.GetMinifiedId();
    cssText_.assign(reinterpret_cast<const char*>(css.GetOutput()->GetValue()),
                    css.GetOutput()->GetValueLength());

    CZelvarJSServer js(const_cast<char*>(Cache().c_str()));
    script_ = "var shown = 'yes';\n";
    for (int i = 0; i < 100; ++i) script_ += "shown += '" + std::to_string(i) + "';\n";
    js.GetContent()->AddValue(script_.data(), static_cast<std::int32_t>(script_.size()));
    jsId_ = js.Store();

    CZelvarImageServer images(const_cast<char*>(Cache().c_str()));
    for (const char* icon : {"pie0.gif", "pie1.gif", "pie2.gif", "pie3.gif"}) {
      const std::string bytes = ReadWholeFile(std::string("/usr/share/apache2/icons/") + icon);
      images.RouteImage(images.AddImage(reinterpret_cast<const unsigned char*>(bytes.data()),
                                        static_cast<std::int32_t>(bytes.size()), "", "", "", "", "",
                                        ""));
    }
    gifId_ = images.BuildSheet(CZelvarImageServer::kGifSheet);
  }
  std::string Root() const { return dir_.File("root"); }
  std::string Cache() const { return dir_.File("cache"); }

  TempDir dir_;
  std::string cssId_, cssText_, jsId_, script_, gifId_;
};

std::string Gunzip(const std::string& bytes) {
  std::unique_ptr<CZelvarBuffer> plain(CZelvarUtils::DecompressBuffer(
      reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())),
      static_cast<std::int32_t>(bytes.size()), false));
  return std::string(reinterpret_cast<const char*>(plain->GetValue()), plain->GetValueLength());
}

TEST_F(ServeTool, AnswersTheThreeHandlersAtAnyPathFromTheCache) {
  ASSERT_FALSE(gifId_.empty());
  ServeProcess serve(Root(), Cache());

  const Reply css = serve.Get("/CS.zp?" + cssId_);
  EXPECT_EQ(css.status, 200);
  EXPECT_EQ(css.Header("Content-Type"), "text/css");
  EXPECT_EQ(css.Header("Cache-Control"), "public, max-age=31536000, immutable");
  EXPECT_EQ(css.Header("Content-Encoding"), "");
  EXPECT_EQ(css.body, cssText_);

  const Reply gzipped = serve.Get("/static/deep/CS.zp?" + cssId_, "Accept-Encoding: br, gzip\r\n");
  EXPECT_EQ(gzipped.Header("Content-Encoding"), "gzip");
  EXPECT_EQ(gzipped.Header("Vary"), "Accept-Encoding");
  EXPECT_EQ(Gunzip(gzipped.body), cssText_);
  EXPECT_EQ(serve.Get("/CS.zp?" + cssId_, "Accept-Encoding: gzip;q=0\r\n").body, cssText_);

  // Browsers may send the braces escaped.
  std::string escaped = jsId_;
  escaped.replace(0, 1, "%7B").replace(escaped.size() - 1, 1, "%7D");
  const Reply js = serve.Get("/opt/JS.zp?" + escaped, "accept-encoding: gzip, deflate\r\n");
  EXPECT_EQ(js.status, 200);
  EXPECT_EQ(js.Header("Content-Type"), "text/javascript");
  EXPECT_EQ(Gunzip(js.body), script_);

  const Reply sheet = serve.Get("/IS.zp?" + gifId_);
  EXPECT_EQ(sheet.status, 200);
  EXPECT_EQ(sheet.body, ReadWholeFile(Cache() + "/gif/" + gifId_));
  // The type follows the bytes, not the set: the GIF set's sheet may be
  // encoded as a PNG.
  EXPECT_EQ(sheet.Header("Content-Type"),
            sheet.body.compare(0, 4, "GIF8") == 0 ? "image/gif" : "image/png");
  EXPECT_TRUE(sheet.body.compare(0, 4, "GIF8") == 0 ||
              sheet.body.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0);

  const Reply placeholder = serve.Get(std::string("/a/IS.zp?") + kPlaceholder);
  EXPECT_EQ(placeholder.status, 200);
  EXPECT_EQ(placeholder.Header("Content-Type"), "image/gif");
  EXPECT_EQ(placeholder.body.size(), 43u);
  EXPECT_EQ(placeholder.body.compare(0, 6, "GIF89a"), 0);

  // Ids that name nothing, or are no ids at all, are simply not there.
  EXPECT_EQ(serve.Get("/CS.zp?" + jsId_).status, 404);
  EXPECT_EQ(serve.Get("/JS.zp?{00000000-0000-0000-0000-000000000000}").status, 404);
  EXPECT_EQ(serve.Get("/IS.zp?" + cssId_).status, 404);
  EXPECT_EQ(serve.Get("/JS.zp?../../etc/passwd").status, 404);
  EXPECT_EQ(serve.Get("/CS.zp").status, 400);
}

TEST_F(ServeTool, ServesFilesInsideTheRootOnly) {
  ServeProcess serve(Root(), Cache());
  const Reply home = serve.Get("/");
  EXPECT_EQ(home.status, 200);
  EXPECT_EQ(home.body, "<p>home</p>");
  EXPECT_EQ(home.Header("Content-Type"), "text/html");
  EXPECT_EQ(home.Header("Cache-Control"), "no-cache");
  EXPECT_EQ(serve.Get("/sub/page.html?x=1").body, "<p>sub</p>");
  EXPECT_EQ(serve.Get("/sub/style.css").Header("Content-Type"), "text/css");
  EXPECT_EQ(serve.Get("/sub/missing.html").status, 404);

  const Reply head = serve.Send("HEAD /sub/page.html HTTP/1.0\r\n\r\n");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.Header("Content-Length"), "10");
  EXPECT_EQ(head.body, "");
  EXPECT_EQ(serve.Send("POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n").status, 405);

  for (const char* escape : {"/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt",
                             "/sub/%2E%2E/%2e%2e/secret.txt", "/a%00b", "/x%zz", "/x%4"}) {
    SCOPED_TRACE(escape);
    const Reply reply = serve.Get(escape);
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.body.find("outside"), std::string::npos);
  }
}

TEST_F(ServeTool, RefusesBadRequestsAndKeepsServing) {
  ServeProcess serve(Root(), Cache());
  for (const std::string& bad :
       {std::string("\r\n\r\n"), std::string("GET\r\n\r\n"), std::string("GET / HTTP/2\r\n\r\n"),
        std::string("GET  / HTTP/1.1\r\n\r\n"), std::string("GET http://x/ HTTP/1.1\r\n\r\n"),
        std::string("\x01\x02\x03\xff\n\n", 6),
        "GET /" + std::string(20000, 'a') + " HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nX: " + std::string(20000, 'b') + "\r\n\r\n"}) {
    SCOPED_TRACE(bad.substr(0, 40));
    EXPECT_EQ(serve.Send(bad).status, 400);
  }
  // A client that says nothing holds only its own connection; one that
  // leaves at once costs nothing.
  const int silent = serve.Connect();
  ASSERT_GE(silent, 0);
  ::close(serve.Connect());
  EXPECT_EQ(serve.Send("GET / HTTP/1.0\n\n").body, "<p>home</p>");
  ::close(silent);
  EXPECT_EQ(serve.Get("/").status, 200);
}

TEST(ServeToolUsage, RefusesBadArguments) {
  TempDir dir;
  auto status = [](const std::string& args) {
    const int raw =
        std::system((std::string(ZP_TOOL_PATH) + " serve " + args + " 2>/dev/null").c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  };
  const std::string root = " --root " + dir.path().string();
  EXPECT_EQ(status("--listen 127.0.0.1:0"), 2);
  EXPECT_EQ(status(root), 2);
  EXPECT_EQ(status("--listen 127.0.0.1" + root), 2);
  EXPECT_EQ(status("--listen 127.0.0.1:70000" + root), 2);
  EXPECT_EQ(status("--listen localhost:80" + root), 2);
  EXPECT_EQ(status("--listen 127.0.0.1:0 --root " + dir.File("missing")), 2);
  EXPECT_EQ(status("--listen 127.0.0.1:0 --frobnicate" + root), 2);
}

}  // namespace
