// Loading the benchmark corpus and the two parsers under comparison.
#ifndef ZELVARPACK_BENCH_HTML_CORPUS_H_
#define ZELVARPACK_BENCH_HTML_CORPUS_H_

#include <cstddef>
#include <string>
#include <vector>

// Every regular file under `folder`, in name order.
std::vector<std::string> LoadCorpus(const std::string& folder);
std::size_t TotalBytes(const std::vector<std::string>& pages);

// Tokenizes through CHtmlConstructor into a consumer that ignores the events.
// `scratch` receives a copy first: the tokenizer rewrites CRs in place.
void ParseWithZelvar(const std::string& page, std::string& scratch);
// gumbo_parse over the same bytes, tree freed afterwards.
void ParseWithGumbo(const std::string& page);

#endif  // ZELVARPACK_BENCH_HTML_CORPUS_H_
