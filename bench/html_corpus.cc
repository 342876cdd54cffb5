#include "bench/html_corpus.h"

#include <gumbo.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "html/html_constructor.h"

std::vector<std::string> LoadCorpus(const std::string& folder) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> pages;
  for (const auto& path : paths) {
    std::ifstream in(path, std::ios::binary);
    pages.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return pages;
}

std::size_t TotalBytes(const std::vector<std::string>& pages) {
  std::size_t total = 0;
  for (const auto& page : pages) total += page.size();
  return total;
}

void ParseWithZelvar(const std::string& page, std::string& scratch) {
  scratch.assign(page);
  CHtmlConstructorEvents ignoring;
  CHtmlConstructor constructor(&ignoring);
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(scratch.data()),
                                    static_cast<int>(scratch.size()));
}

void ParseWithGumbo(const std::string& page) {
  GumboOutput* output = gumbo_parse_with_options(&kGumboDefaultOptions, page.data(), page.size());
  gumbo_destroy_output(&kGumboDefaultOptions, output);
}
