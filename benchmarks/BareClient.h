#ifndef QUILLMERE_BENCHMARKS_BARECLIENT_H
#define QUILLMERE_BENCHMARKS_BARECLIENT_H

#include <curl/curl.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace benchmarks {

/// Sends requests of one kind through one easy handle of libcurl, as little as a client can do.
class BareClient {
 public:
  /// The fields are what the library's requests of that kind have, "Name: value" each.
  BareClient(const std::string& url, const char* method, std::initializer_list<const char*> fields);
  BareClient(const BareClient&) = delete;
  BareClient& operator=(const BareClient&) = delete;

  /// The body of the answer to a request with that body, which must have the status 207. The caller
  /// may write to it; it is good until the next request.
  std::string& answerTo(std::string_view body);

 private:
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl_;
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> fields_;
  std::string answer_;
};

}  // namespace benchmarks

#endif
