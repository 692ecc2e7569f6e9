// Owners of libcurl's handles, and its one-time start-up.
#ifndef VESKAN_CLIENT_CURL_H
#define VESKAN_CLIENT_CURL_H

#include <curl/curl.h>

#include <memory>
#include <string>

namespace Veskan {
namespace Detail {

// Starts libcurl once per process, before the first handle is made; it is never shut down,
// since a handle of another thread may still be in use when the process ends.
void StartCurl();

struct CurlEasyCleanup {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CurlMultiCleanup {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyCleanup>;
using CurlMulti = std::unique_ptr<CURLM, CurlMultiCleanup>;

// A list of header lines handed to CURLOPT_HTTPHEADER; it must live while the handle uses it.
class CurlHeaderList {
 public:
  CurlHeaderList() = default;
  CurlHeaderList(const CurlHeaderList&) = delete;
  CurlHeaderList& operator=(const CurlHeaderList&) = delete;
  ~CurlHeaderList() { curl_slist_free_all(list_); }

  // Appends one line as it is; false when libcurl is out of memory.
  bool Append(const std::string& line) {
    curl_slist* longer = curl_slist_append(list_, line.c_str());
    if (!longer) return false;
    list_ = longer;
    return true;
  }
  curl_slist* Get() const { return list_; }

 private:
  curl_slist* list_ = nullptr;
};

}  // namespace Detail
}  // namespace Veskan

#endif
