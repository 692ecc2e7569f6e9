// The HTTP client's benchmark program: one measurement per run, timed from the first request to
// the last reply, printed as one line "MODE REQUESTS SECONDS OK". bench/client/run.py starts the
// server, interleaves the modes and compares them.
//
//   veskan_client_bench client-sequential URL COUNT   one HttpClient, Send(message, false)
//   veskan_client_bench curl-sequential URL COUNT     one libcurl easy handle, reused
//   veskan_client_bench client-parallel URL COUNT IN_FLIGHT
//                                                     one HttpClient, Send(message, true), with
//                                                     IN_FLIGHT messages kept in flight
//
// URL is the full URL of the page ("http://127.0.0.1:PORT/hello"); OK counts replies with status
// 200 and the expected content length, so a fast run of failures does not pass for a fast run.
#include <veskan/Content.h>
#include <veskan/HttpClient.h>
#include <veskan/Message.h>

#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

using namespace Veskan;

namespace {

using Clock = std::chrono::steady_clock;

// "http://host:port" and "/path" of a full URL.
bool SplitUrl(const std::string& url, std::string& base, std::string& target) {
  std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return false;
  std::size_t path = url.find('/', scheme + 3);
  if (path == std::string::npos) return false;
  base = url.substr(0, path);
  target = url.substr(path);
  return true;
}

bool Succeeded(const std::shared_ptr<Message>& message) {
  auto lock = message->Lock();
  return message->StatusCode == 200 && message->Reply->Content &&
         message->Reply->Content->Size() > 0;
}

std::shared_ptr<Message> Opened(const std::u16string& target) {
  std::shared_ptr<Message> message = Message::New();
  message->Open(Methods::GET, target.c_str());
  return message;
}

std::u16string Widen(const std::string& text) {
  return std::u16string(text.begin(), text.end());  // URLs here are ASCII
}

long ClientSequential(const std::string& url, long count) {
  std::string base, target;
  if (!SplitUrl(url, base, target)) return -1;
  auto client = std::make_shared<HttpClient>();
  if (!client->Connect(Widen(base).c_str())) return -1;
  std::u16string wideTarget = Widen(target);
  long succeeded = 0;
  for (long i = 0; i < count; ++i) {
    std::shared_ptr<Message> message = Opened(wideTarget);
    if (client->Send(message, false) && Succeeded(message)) ++succeeded;
  }
  client->Disconnect(true);
  return succeeded;
}

std::size_t Collect(char* data, std::size_t size, std::size_t count, void* reply) {
  static_cast<std::string*>(reply)->append(data, size * count);
  return size * count;
}

// What a careful libcurl user writes: one easy handle, its connection reused, the reply kept.
long CurlSequential(const std::string& url, long count) {
  CURL* easy = curl_easy_init();
  if (easy == nullptr) return -1;
  std::string reply;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &reply);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  // Asks the server to keep the connection, as HttpClient does.
  curl_slist* headers = curl_slist_append(nullptr, "Connection: Keep-Alive");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  long succeeded = 0;
  for (long i = 0; i < count; ++i) {
    reply.clear();
    long status = 0;
    if (curl_easy_perform(easy) == CURLE_OK &&
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status == 200 &&
        !reply.empty()) {
      ++succeeded;
    }
  }
  curl_easy_cleanup(easy);
  curl_slist_free_all(headers);
  return succeeded;
}

// Keeps `inFlight` background sends going until `count` have ended; each ending (its Loaded
// announcement, on the client's worker) frees a place for the next.
long ClientParallel(const std::string& url, long count, long inFlight) {
  std::string base, target;
  if (!SplitUrl(url, base, target)) return -1;
  auto client = std::make_shared<HttpClient>();
  if (!client->Connect(Widen(base).c_str())) return -1;
  std::u16string wideTarget = Widen(target);

  std::mutex mutex;
  std::condition_variable freed;
  long running = 0, ended = 0, succeeded = 0;
  auto onChange = [&](const std::shared_ptr<Message>& message) {
    if (message->ReadyState != ReadyStates::Loaded) return;
    bool ok = Succeeded(message);
    std::lock_guard<std::mutex> lock(mutex);
    --running;
    ++ended;
    if (ok) ++succeeded;
    freed.notify_one();
  };
  for (long sent = 0; sent < count; ++sent) {
    {
      std::unique_lock<std::mutex> lock(mutex);
      freed.wait(lock, [&] { return running < inFlight; });
      ++running;
    }
    std::shared_ptr<Message> message = Opened(wideTarget);
    message->ReadyStateChanged.connect(onChange);
    if (!client->Send(message, true)) {
      std::lock_guard<std::mutex> lock(mutex);
      --running;
      ++ended;
    }
  }
  {
    std::unique_lock<std::mutex> lock(mutex);
    freed.wait(lock, [&] { return ended == count; });
  }
  client->Disconnect(true);
  return succeeded;
}

int Usage() {
  std::fprintf(stderr,
               "usage: veskan_client_bench client-sequential|curl-sequential URL COUNT\n"
               "       veskan_client_bench client-parallel URL COUNT IN_FLIGHT\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return Usage();
  std::string mode = argv[1], url = argv[2];
  long count = std::atol(argv[3]);
  if (count <= 0) return Usage();
  curl_global_init(CURL_GLOBAL_DEFAULT);

  Clock::time_point start = Clock::now();
  long succeeded;
  if (mode == "client-sequential") {
    succeeded = ClientSequential(url, count);
  } else if (mode == "curl-sequential") {
    succeeded = CurlSequential(url, count);
  } else if (mode == "client-parallel" && argc >= 5 && std::atol(argv[4]) > 0) {
    succeeded = ClientParallel(url, count, std::atol(argv[4]));
  } else {
    return Usage();
  }
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  curl_global_cleanup();

  std::printf("%s %ld %.6f %ld\n", mode.c_str(), count, seconds, succeeded);
  return succeeded == count ? 0 : 1;
}
