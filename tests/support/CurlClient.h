#ifndef QUILLMERE_TESTS_SUPPORT_CURLCLIENT_H
#define QUILLMERE_TESTS_SUPPORT_CURLCLIENT_H

#include <curl/curl.h>

#include <memory>
#include <string>
#include <vector>

namespace quillmere::testing {

/// A client that knows nothing of this library, to try the test servers with.
class CurlClient {
 public:
  struct Outcome {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body;
  };

  CurlClient() : curl_(curl_easy_init(), &curl_easy_cleanup) {
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_TIMEOUT, 20L);
  }

  template <typename Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(curl_.get(), option, value);
  }

  /// Header lines as they travel; "Name:" alone keeps libcurl from sending its own.
  Outcome perform(const std::string& method, const std::string& url,
                  const std::vector<std::string>& headers = {}, const std::string& body = "") {
    Outcome outcome;
    curl_slist* lines = nullptr;
    for (const std::string& header : headers) lines = curl_slist_append(lines, header.c_str());
    const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> owner(lines,
                                                                            &curl_slist_free_all);
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_HTTPHEADER, lines);
    if (body.empty()) {
      set(CURLOPT_HTTPGET, 1L);
    } else {
      set(CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
      set(CURLOPT_COPYPOSTFIELDS, body.c_str());
    }
    set(CURLOPT_CUSTOMREQUEST, method.c_str());
    set(CURLOPT_WRITEFUNCTION, &CurlClient::onBody);
    set(CURLOPT_WRITEDATA, &outcome);
    outcome.code = curl_easy_perform(curl_.get());
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &outcome.status);
    return outcome;
  }

 private:
  static std::size_t onBody(const char* bytes, std::size_t, std::size_t count, void* outcome) {
    static_cast<Outcome*>(outcome)->body.append(bytes, count);
    return count;
  }

  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl_;
};

}  // namespace quillmere::testing

#endif
