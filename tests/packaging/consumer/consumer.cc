// A host program built against the installed library: it includes the
// installed headers and drives the exported surface through the shared
// library alone.
#include <zelvarpack/meta_finder.h>
#include <zelvarpack/proxy.h>
#include <zelvarpack/savings_calculator.h>
#include <zelvarpack/zelvar_buffer.h>
#include <zelvarpack/zelvar_html_server.h>
#include <zelvarpack/zelvar_utils.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: consumer FOLDER\n");
    return 2;
  }
  int failures = 0;
  auto check = [&failures](bool ok, const char* what) {
    if (!ok) {
      std::fprintf(stderr, "failed: %s\n", what);
      ++failures;
    }
  };

  CZelvarBuffer buffer;
  buffer.AddValue("abc", 3);
  check(buffer.GetValueLength() == 3 && std::memcmp(buffer.GetValue(), "abc", 4) == 0, "buffer");

  std::string page = "<meta http-equiv=Content-Type content='text/html'>";
  void* finder = CMetaFinder::Create();
  CMetaFinder::AddWork(finder, reinterpret_cast<unsigned char*>(page.data()),
                       static_cast<std::int32_t>(page.size()));
  CMetaFinder::DoWork(finder);
  std::int32_t found = 0;
  CMetaFinder::Destroy(finder, found);
  check(found == 1, "meta finder");

  // A page without a head comes out of the optimiser as it went in.
  std::string folder = argv[1];
  std::string url = "http://127.0.0.1/p.html";
  auto* server = new CZelvarHtmlServer(
      folder.data(), 1, false, false, true, 0, nullptr, nullptr, nullptr, 0, nullptr, 0,
      reinterpret_cast<unsigned char*>(url.data()), static_cast<std::int32_t>(url.size()), nullptr,
      nullptr, nullptr, nullptr, nullptr);
  std::string body = "<p>no head</p>";
  server->AddWork(reinterpret_cast<unsigned char*>(body.data()),
                  static_cast<std::int32_t>(body.size()));
  server->DoWork();
  bool gzip = false;
  CZelvarBuffer* out = server->GetRawZelvarBuffer(gzip);
  check(std::string(reinterpret_cast<char*>(out->GetValue()),
                    static_cast<std::size_t>(out->GetValueLength())) == body,
        "page optimiser");
  delete server;

  std::string empty;
  void* proxy = CProxy::Create(reinterpret_cast<unsigned char*>(folder.data()),
                               static_cast<std::int32_t>(folder.size()),
                               reinterpret_cast<unsigned char*>(url.data()),
                               static_cast<std::int32_t>(url.size()), nullptr, 0);
  std::string images = "<img src=a.png>";
  CProxy::AddWork(proxy, reinterpret_cast<unsigned char*>(images.data()),
                  static_cast<std::int32_t>(images.size()));
  CProxy::DoWork(proxy);
  CProxy::Destroy(proxy);
  FILE* index = CZelvarUtils::OpenFileForReading(folder + "/index.html");
  check(index != nullptr, "proxy page");
  if (index != nullptr) std::fclose(index);

  if (failures == 0) std::puts("consumer ok");
  return failures == 0 ? 0 : 1;
}
