// zelvarpack: the command-line face of the engine.
#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "core/background_work.h"
#include "tools/cli.h"

namespace {

constexpr char kUsage[] =
    "usage: zelvarpack <command> [options]\n"
    "commands:\n"
    "  html-tokens [--constructor] [--state data|rcdata|rawtext|script|plaintext]\n"
    "              [--last-start-tag NAME] [FILE]   print the HTML token stream as JSON lines\n"
    "  meta [FILE]                                  1 if the page declares itself text/html\n"
    "  id --number N | --content FILE               print an identifier\n"
    "  fetch URL [--cache DIR] [--timeout SECONDS] [--user-agent UA] [-o FILE]\n"
    "                                               download URL; counters as JSON on stderr\n"
    "  js store [--cache DIR] FILE...               store the scripts combined, print the id\n"
    "  js get [--cache DIR] [--gzip] ID             write a stored script; gzip choice on stderr\n"
    "  css-tokens [FILE]                            print the CSS token stream as JSON lines\n"
    "  minify-css [--name URL] FILE...              write the sheets combined and minified\n"
    "  filter-css [--cache DIR] [--server-url URL] [--timeout S] --name URL FILE\n"
    "                                               minify one sheet, placing its background\n"
    "                                               images in sprite sheets (stored in DIR)\n"
    "  css store [--cache DIR] [--name URL] FILE... store the minified sheets, print the id\n"
    "  css get [--cache DIR] [--gzip] ID            write a stored sheet; gzip choice on stderr\n"
    "  style STYLE-TEXT                             print what the style finder sees as JSON\n"
    "  audio pack --work DIR --index FILE --data FILE WAV...\n"
    "                                               pack WAV files into tesserae and print\n"
    "                                               the sizes\n"
    "  video pack --work DIR --index FILE --data FILE FRAME...\n"
    "                                               pack 1920x1080 JPEG/PNG frames into\n"
    "                                               mosaics and print the counts\n"
    "  video frame --index FILE --data FILE N -o OUT.png\n"
    "                                               rebuild frame N (from 0) as PNG\n"
    "  store add [--db CONNECTION] FILE...          store files in chunks, print each new id\n"
    "  store get [--db CONNECTION] ID [-o FILE]     write a stored file back\n"
    "  store stats [--db CONNECTION]                files, chunks, composites, bytes, ratio\n"
    "      CONNECTION: an ODBC connection string, or a SQLite database file\n"
    "      (default: zelvarpack-store.db in the current folder)\n"
    "  sprite [--cache DIR] [[--size WxH] [--margins B,L,R,T] IMAGE]...\n"
    "                                               build the four sprite sheets; print ids and\n"
    "                                               each image's key and percentages\n"
    "  sprite get [--cache DIR] gif|jpg|png24|png32 ID -o FILE\n"
    "                                               write a stored sheet, print its index\n"
    "  optimize (--url URL | --file PAGE --page-url URL) [--cache DIR] [--timeout SECONDS]\n"
    "           [--handler-path PATH] [--server-address HOST] [--fetch-foreign]\n"
    "           [--keep-comments] [--user-agent UA] [--client-address ADDRESS] [-o FILE]\n"
    "                                               optimise a page: the new page to FILE (or\n"
    "                                               stdout), the counters and ids as JSON (on\n"
    "                                               stdout with -o, else stderr)\n"
    "  serve --listen ADDRESS:PORT --root DIR [--cache DIR]\n"
    "                                               serve DIR's files and the CS.zp, JS.zp\n"
    "                                               and IS.zp handlers from the cache; print\n"
    "                                               the address, then run until stopped\n"
    "  savings (--url URL | --file PAGE --page-url URL) --dir DIR [--server-url URL]\n"
    "          [--user-agent UA]                    save the page and its stylesheets, images\n"
    "                                               and scripts in DIR (index.html); print the\n"
    "                                               download totals as JSON\n"
    "  proxy (--url URL | --file PAGE --page-url URL) --dir DIR [--server-url URL]\n"
    "                                               write DIR/index.html with the page's\n"
    "                                               resource addresses made absolute\n";

struct Command {
  const char* name;
  int (*run)(zelvarpack::cli::Arguments&);
};

constexpr Command kCommands[] = {
    {"html-tokens", RunHtmlTokens},
    {"meta", RunMeta},
    {"id", RunId},
    {"fetch", RunFetch},
    {"js", RunJs},
    {"css-tokens", RunCssTokens},
    {"minify-css", RunMinifyCss},
    {"filter-css", RunFilterCss},
    {"css", RunCss},
    {"style", RunStyle},
    {"audio", RunAudio},
    {"video", RunVideo},
    {"store", RunStore},
    {"sprite", RunSprite},
    {"optimize", RunOptimize},
    {"serve", RunServe},
    {"savings", RunSavings},
    {"proxy", RunProxy},
};

}  // namespace

int main(int argc, char** argv) {
#if defined(_WIN32)
  // Outputs are bytes, compared with the Linux tool's: no CR/LF translation.
  ::_setmode(::_fileno(stdin), _O_BINARY);
  ::_setmode(::_fileno(stdout), _O_BINARY);
  ::_setmode(::_fileno(stderr), _O_BINARY);
#endif
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    std::fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  for (const Command& command : kCommands) {
    if (std::strcmp(argv[1], command.name) != 0) continue;
    try {
      zelvarpack::cli::Arguments args(argc, argv, 2);
      const int status = command.run(args);
      // Downloads a page stopped waiting for must end before the program.
      zelvarpack::StopBackgroundWork(std::chrono::seconds(10));
      return status;
    } catch (const zelvarpack::cli::UsageError& error) {
      std::fprintf(stderr, "zelvarpack %s: %s\n", command.name, error.what());
      return 2;
    } catch (const std::exception& error) {
      std::fprintf(stderr, "zelvarpack %s: %s\n", command.name, error.what());
      return 1;
    }
  }
  std::fprintf(stderr, "zelvarpack: unknown command '%s' (try --help)\n", argv[1]);
  return 2;
}
