// Tokenizer throughput against gumbo on the same pages, and how our time
// scales with page size and with single huge constructs.
//
// Run through bench/run-html-bench.sh, which builds the corpus and prints the
// comparison. The corpus folder comes from ZP_HTML_CORPUS.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench/html_corpus.h"

namespace {

const std::vector<std::string>& Corpus() {
  static const std::vector<std::string> pages = [] {
    const char* folder = std::getenv("ZP_HTML_CORPUS");
    if (folder == nullptr) {
      std::fprintf(stderr, "set ZP_HTML_CORPUS to a folder of HTML pages\n");
      std::exit(2);
    }
    return LoadCorpus(folder);
  }();
  return pages;
}

void BM_CorpusZelvar(benchmark::State& state) {
  std::string scratch;
  for (auto _ : state) {
    for (const auto& page : Corpus()) ParseWithZelvar(page, scratch);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * TotalBytes(Corpus())));
}
BENCHMARK(BM_CorpusZelvar)->Unit(benchmark::kMillisecond);

void BM_CorpusGumbo(benchmark::State& state) {
  for (auto _ : state) {
    for (const auto& page : Corpus()) ParseWithGumbo(page);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * TotalBytes(Corpus())));
}
BENCHMARK(BM_CorpusGumbo)->Unit(benchmark::kMillisecond);

// One page of `megabytes` MB made of corpus pages end to end.
std::string BigPage(int megabytes) {
  std::string page;
  const std::size_t size = static_cast<std::size_t>(megabytes) << 20;
  while (page.size() < size) {
    for (const auto& part : Corpus()) page += part;
  }
  page.resize(size);
  return page;
}

void BM_PageOfSize(benchmark::State& state) {
  const std::string page = BigPage(static_cast<int>(state.range(0)));
  std::string scratch;
  for (auto _ : state) ParseWithZelvar(page, scratch);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * page.size()));
}
BENCHMARK(BM_PageOfSize)->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond);

// A single construct of 1 MB or 5 MB (0: attribute value, 1: comment, 2:
// script text, 3: attributes): linear time means equal MB/s.
std::string Huge(int kind, std::size_t size) {
  const std::string body(size, 'x');
  switch (kind) {
    case 0:
      return "<p title=\"" + body + "\">a</p>";
    case 1:
      return "<!--" + body + "-->";
    case 2:
      return "<script>" + body + "</script>";
    default: {  // one tag with size / 2 attributes
      std::string tag = "<a";
      for (std::size_t i = 0; i < size / 2; ++i) tag += " b";
      return tag + ">";
    }
  }
}

void BM_HugeConstruct(benchmark::State& state) {
  const std::string page =
      Huge(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)) << 20);
  std::string scratch;
  for (auto _ : state) ParseWithZelvar(page, scratch);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * page.size()));
}
BENCHMARK(BM_HugeConstruct)
    ->ArgNames({"kind", "MB"})
    ->ArgsProduct({{0, 1, 2, 3}, {1, 5}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
