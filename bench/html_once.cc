// html_once load|zelvar|gumbo CORPUS: parses the corpus once (or only loads
// it). The difference of two callgrind totals gives a parser's instructions.
#include <cstdio>
#include <cstring>
#include <string>

#include "bench/html_corpus.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: html_once load|zelvar|gumbo CORPUS\n");
    return 2;
  }
  const auto pages = LoadCorpus(argv[2]);
  std::string scratch;
  for (const auto& page : pages) {
    if (std::strcmp(argv[1], "zelvar") == 0) ParseWithZelvar(page, scratch);
    if (std::strcmp(argv[1], "gumbo") == 0) ParseWithGumbo(page);
  }
  std::printf("%zu\n", TotalBytes(pages));
  return 0;
}
