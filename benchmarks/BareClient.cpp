#include "BareClient.h"

#include <cstddef>

#include "Race.h"

namespace benchmarks {
namespace {

std::size_t appendBody(const char* bytes, std::size_t, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(bytes, count);
  return count;
}

curl_slist* listOf(std::initializer_list<const char*> fields) {
  curl_slist* list = nullptr;
  for (const char* field : fields) list = curl_slist_append(list, field);
  for (const char* unwanted : {"Expect:", "Transfer-Encoding:"}) {
    list = curl_slist_append(list, unwanted);
  }
  return list;
}

}  // namespace

BareClient::BareClient(const std::string& url, const char* method,
                       std::initializer_list<const char*> fields)
    : curl_(curl_easy_init(), &curl_easy_cleanup), fields_(listOf(fields), &curl_slist_free_all) {
  curl_easy_setopt(curl_.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl_.get(), CURLOPT_USERAGENT, "Quillmere/" QUILLMERE_VERSION);
  curl_easy_setopt(curl_.get(), CURLOPT_HTTPHEADER, fields_.get());
  curl_easy_setopt(curl_.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl_.get(), CURLOPT_CUSTOMREQUEST, method);
  curl_easy_setopt(curl_.get(), CURLOPT_WRITEFUNCTION, &appendBody);
  curl_easy_setopt(curl_.get(), CURLOPT_WRITEDATA, &answer_);
}

std::string& BareClient::answerTo(std::string_view body) {
  answer_.clear();
  curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDS, body.data());
  long status = 0;
  require(curl_easy_perform(curl_.get()) == CURLE_OK, "a bare request failed");
  curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &status);
  require(status == 207, "a bare request was given no answer");
  return answer_;
}

}  // namespace benchmarks
