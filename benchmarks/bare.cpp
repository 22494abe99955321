// The limit: the request of a creation, over and over, with libcurl's multi interface and nothing
// else.
//
//     bare PORT CERTIFICATES CALLS AT-ONCE [thread]
//
// CERTIFICATES is a file or a hashed folder. With `thread`, the requests are made on a thread of
// their own, for one that hands them over and waits for each. Prints the seconds that the calls
// took, but for the first, which opens the connection.

#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// What the library sends in calls.cpp.
constexpr char body[] =
    R"({"api_key":"key","device_id":"00000000-0000-4000-8000-000000000000",)"
    R"("android_behavior":2,"destination_url":"https:\/\/shop.example\/shoes",)"
    R"("domain":"go.shop.example","ios_behavior":2,"social_description":"New in",)"
    R"("social_image_url":"https:\/\/shop.example\/shoes.png","social_title":"Shoes",)"
    R"("utm_source":"newsletter","utm_medium":"email","utm_campaign":"spring"})";

std::size_t take(char* bytes, std::size_t size, std::size_t count, void* reply) {
  static_cast<std::string*>(reply)->append(bytes, size * count);
  return size * count;
}

struct Client {
  Client(std::string servicePort, const std::filesystem::path& certificates)
      : port(std::move(servicePort)), trusted(certificates), isFolder(is_directory(certificates)) {
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
    headers = curl_slist_append(nullptr, "Content-Type: application/json");
    headers = curl_slist_append(headers, "Expect:");
  }

  void add() {
    CURL* easy = curl_easy_init();
    auto* reply = new std::string;
    const std::string url = "https://127.0.0.1:" + port + "/app/api/v1/create_link";
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, isFolder ? CURLOPT_CAPATH : CURLOPT_CAINFO, trusted.c_str());
    if (isFolder) curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, long{sizeof body - 1});
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_USERAGENT, curl_version_info(CURLVERSION_NOW)->version);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, reply);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, reply);
    curl_multi_add_handle(multi, easy);
  }

  // Makes some progress; gives each handle that is done to `next`.
  template <class Next>
  void step(const Next& next) {
    int underWay = 0;
    int left = 0;
    curl_multi_perform(multi, &underWay);
    while (const CURLMsg* message = curl_multi_info_read(multi, &left)) {
      CURL* easy = message->easy_handle;
      long status = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      if (message->data.result != CURLE_OK || status != 200) {
        std::fprintf(stderr, "bare: %s, status %ld\n", curl_easy_strerror(message->data.result),
                     status);
        std::_Exit(EXIT_FAILURE);
      }
      std::string* reply = nullptr;
      curl_easy_getinfo(easy, CURLINFO_PRIVATE, &reply);
      reply->clear();
      curl_multi_remove_handle(multi, easy);
      next(easy);
    }
  }
  void wait() { curl_multi_poll(multi, nullptr, 0, 60'000, nullptr); }

  CURLM* const multi = curl_multi_init();
  curl_slist* headers = nullptr;
  const std::string port;
  const std::string trusted;
  const bool isFolder;
};

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// All on this thread.
double straight(Client& client, long calls, long atOnce) {
  client.add();
  CURL* warm = nullptr;
  while (client.step([&](CURL* easy) { warm = easy; }), !warm) client.wait();
  const auto start = Clock::now();
  long begun = 0;
  long done = 0;
  if (begun++ < calls) curl_multi_add_handle(client.multi, warm);
  for (; begun < std::min(calls, atOnce); ++begun) client.add();
  for (;;) {
    client.step([&](CURL* easy) {
      ++done;
      if (begun < calls) {
        ++begun;
        curl_multi_add_handle(client.multi, easy);
      }
    });
    if (done >= calls) return since(start);
    client.wait();
  }
}

// One after another, on a thread of their own.
double handedOver(Client& client, long calls) {
  std::mutex mutex;
  std::condition_variable answered;
  CURL* idle = nullptr;       // guarded by mutex
  CURL* submitted = nullptr;  // guarded by mutex
  client.add();
  std::thread network([&] {
    for (;;) {
      {
        const std::scoped_lock lock(mutex);
        if (submitted) curl_multi_add_handle(client.multi, std::exchange(submitted, nullptr));
      }
      client.step([&](CURL* easy) {
        const std::scoped_lock lock(mutex);
        idle = easy;
        answered.notify_one();
      });
      client.wait();
    }
  });
  network.detach();
  const auto await = [&] {
    std::unique_lock lock(mutex);
    answered.wait(lock, [&] { return idle; });
    return std::exchange(idle, nullptr);
  };
  CURL* easy = await();
  const auto start = Clock::now();
  for (long i = 0; i < calls; ++i) {
    {
      const std::scoped_lock lock(mutex);
      submitted = easy;
    }
    curl_multi_wakeup(client.multi);
    easy = await();
  }
  return since(start);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fputs("usage: bare PORT CERTIFICATES CALLS AT-ONCE [thread]\n", stderr);
    return EXIT_FAILURE;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  static Client& client = *new Client(argv[1], argv[2]);
  const long calls = std::atol(argv[3]);
  const double seconds =
      argc > 5 ? handedOver(client, calls) : straight(client, calls, std::atol(argv[4]));
  std::printf("{\"seconds\": %.9f}\n", seconds);
  std::fflush(stdout);
  std::_Exit(EXIT_SUCCESS);
}
