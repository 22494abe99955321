#include "platform/URLSession.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "platform/Thread.h"
#include "platform/URLError.h"

namespace quorva::platform {
namespace {

using Clock = std::chrono::steady_clock;
using Code = URLError::Code;

constexpr std::size_t maximumSize = 16 << 20;  // of a reply, headers included
constexpr long maximumRedirects = 20;
// How many requests are with curl at once; the others wait here, since those that wait in curl may
// wait for good.
constexpr std::size_t atOnceOverHTTP1 = 6;    // each on a connection of its own
constexpr std::size_t atOnceOverHTTP2 = 100;  // sharing connections
constexpr std::size_t idleHandles = 16;       // kept for reuse: a new one is dear

struct List {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Headers = std::unique_ptr<curl_slist, List>;

// One request under way, as its coroutine awaits it. From `submit` until `awaiting` is posted it is
// the network thread's.
struct Transfer {
  explicit Transfer(URLRequest r) : request(std::move(r)) {}

  [[nodiscard]] bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> coroutine);
  HTTPResponse await_resume() { return std::move(*outcome).value(); }

  void finish(Result<HTTPResponse> result) {
    outcome = std::move(result);
    GeneralExecutor::post(awaiting);
  }

  const URLRequest request;
  std::coroutine_handle<> awaiting;
  std::optional<Result<HTTPResponse>> outcome;

  CURL* easy = nullptr;
  Headers headers;
  Headers connectTo;
  std::array<char, CURL_ERROR_SIZE> message{};
  Clock::time_point deadline;
  std::size_t received = 0;
  HTTPResponse response;
};

// The certificates that the system trusts. A folder with an entry for each, named by its hash,
// costs nothing to open; the bundle is parsed whole.
struct TrustStore {
  const char* file = nullptr;
  const char* folder = nullptr;

  static TrustStore system() {
    const auto* curl = curl_version_info(CURLVERSION_NOW);
    std::error_code unreadable;
    if (curl->capath) {
      for (const auto& entry : std::filesystem::directory_iterator(curl->capath, unreadable)) {
        if (entry.path().extension() == ".0") return {nullptr, curl->capath};
      }
    }
    return {curl->cainfo, nullptr};
  }
};

Code certificateError(long verifyResult) {
  // As X509_verify_cert counts them.
  switch (verifyResult) {
    case 9:
      return Code::serverCertificateNotYetValid;
    case 10:
      return Code::serverCertificateHasBadDate;
    case 2:   // the issuer isn't to be had
    case 18:  // self-signed
    case 19:  // a self-signed one in the chain
    case 20:  // the issuer isn't to be had here
    case 21:  // the only one, and not to be verified
      return Code::serverCertificateHasUnknownRoot;
    default:
      return Code::serverCertificateUntrusted;
  }
}

// What curl's refusals are to us; the rest is a connection lost.
constexpr std::array<std::pair<CURLcode, Code>, 21> codes{{
    {CURLE_URL_MALFORMAT, Code::badURL},
    {CURLE_OPERATION_TIMEDOUT, Code::timedOut},
    {CURLE_COULDNT_RESOLVE_HOST, Code::cannotFindHost},
    {CURLE_COULDNT_RESOLVE_PROXY, Code::cannotFindHost},
    {CURLE_COULDNT_CONNECT, Code::cannotConnectToHost},
    {CURLE_PROXY, Code::cannotConnectToHost},
    {CURLE_TOO_MANY_REDIRECTS, Code::httpTooManyRedirects},
    {CURLE_UNSUPPORTED_PROTOCOL, Code::insecureConnection},
    {CURLE_WEIRD_SERVER_REPLY, Code::cannotParseResponse},
    {CURLE_BAD_CONTENT_ENCODING, Code::cannotParseResponse},
    {CURLE_HTTP2, Code::cannotParseResponse},
    {CURLE_WRITE_ERROR, Code::dataLengthExceedsMaximum},
    {CURLE_SSL_CONNECT_ERROR, Code::secureConnectionFailed},
    {CURLE_SSL_CIPHER, Code::secureConnectionFailed},
    {CURLE_SSL_CACERT_BADFILE, Code::secureConnectionFailed},
    {CURLE_SSL_CERTPROBLEM, Code::secureConnectionFailed},
    {CURLE_SSL_ENGINE_NOTFOUND, Code::secureConnectionFailed},
    {CURLE_SSL_ENGINE_SETFAILED, Code::secureConnectionFailed},
    {CURLE_SSL_ENGINE_INITFAILED, Code::secureConnectionFailed},
    {CURLE_SSL_INVALIDCERTSTATUS, Code::serverCertificateUntrusted},
    {CURLE_SSL_ISSUER_ERROR, Code::serverCertificateHasUnknownRoot},
}};

template <class T>
T info(CURL* easy, CURLINFO which) {
  T value{};
  curl_easy_getinfo(easy, which, &value);
  return value;
}

Code errorCode(CURL* easy, CURLcode code) {
  if (code == CURLE_PEER_FAILED_VERIFICATION) {
    return certificateError(info<long>(easy, CURLINFO_SSL_VERIFYRESULT));
  }
  if (code == CURLE_COULDNT_CONNECT) {
    const auto systemError = info<long>(easy, CURLINFO_OS_ERRNO);
    if (systemError == ENETUNREACH || systemError == ENETDOWN) return Code::notConnectedToInternet;
  }
  if (code == CURLE_UNSUPPORTED_PROTOCOL &&
      std::string_view(info<const char*>(easy, CURLINFO_EFFECTIVE_URL)).starts_with("https:")) {
    return Code::cannotParseResponse;  // HTTP/0.9: bytes without a status line
  }
  const auto row = std::ranges::find(codes, code, &std::pair<CURLcode, Code>::first);
  return row == codes.end() ? Code::networkConnectionLost : row->second;
}

// Sets a handle's options one by one, and remembers whether curl took them all.
struct Options {
  explicit Options(CURL* handle) : easy(handle), accepted(handle) {}

  template <class T>
  void set(CURLoption option, T value) {
    accepted = accepted && curl_easy_setopt(easy, option, value) == CURLE_OK;
  }

  CURL* const easy;
  bool accepted;
};

// Counts what has arrived. False where that is too much.
bool take(Transfer& transfer, std::size_t bytes) {
  transfer.received += bytes;
  transfer.deadline = Clock::now() + transfer.request.timeout;
  return transfer.received <= maximumSize;
}

std::size_t takeHeader(char*, std::size_t size, std::size_t count, void* transfer) {
  return take(*static_cast<Transfer*>(transfer), size * count) ? size * count : 0;
}

std::size_t takeBody(char* bytes, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  if (!take(transfer, size * count)) return 0;
  try {
    transfer.response.body.append(bytes, size * count);
  } catch (const std::bad_alloc&) {
    return 0;  // curl, which is C, is to hear of it: too large for this machine
  }
  return size * count;
}

class Network {
 public:
  // Never destroyed: its thread works on while the process exits.
  static Network& shared() {
    static Network& instance = *new Network;
    return instance;
  }

  void submit(Transfer& transfer) {
    {
      const std::scoped_lock lock(mutex_);
      if (!running_) running_ = start();
      if (running_) {
        submitted_.push_back(&transfer);
        curl_multi_wakeup(multi_);
        return;
      }
    }
    transfer.finish(URLError(Code::cannotConnectToHost, "the network could not be set up"));
  }

  void route(std::string host, URLSession::Route route) {
    const std::scoped_lock lock(mutex_);
    routes_.insert_or_assign(std::move(host), std::move(route));
  }

 private:
  bool start() {
    // Else the TLS library would take itself down at exit, perhaps before our own threads are told
    // to stop.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
    if (!multi_) multi_ = curl_multi_init();
    if (!share_) share_ = curl_share_init();
    if (!multi_ || !share_) return false;
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    trust_ = TrustStore::system();
    return startThread(
        "quorva-network", [] { shared().run(); }, [] { stopWork(shared().atWork_); });
  }

  [[noreturn]] void run() {
    for (;;) {
      {
        const std::scoped_lock lock(atWork_);
        takeSubmitted();
        int underWay = 0;
        curl_multi_perform(multi_, &underWay);
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
          if (message->msg != CURLMSG_DONE) continue;
          end(*info<Transfer*>(message->easy_handle, CURLINFO_PRIVATE), message->data.result);
        }
        expire();
        // After a pause the connection may be gone: not a hundred of them at once, then.
        if (underWay_.empty()) atOnce_ = atOnceOverHTTP1;
        while (!waiting_.empty() && underWay_.size() < atOnce_) {
          Transfer* const next = waiting_.front();
          waiting_.pop_front();
          begin(*next);
        }
      }
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(nextDeadline_ - Clock::now());
      curl_multi_poll(multi_, nullptr, 0,
                      static_cast<int>(std::clamp<long>(wait.count(), 0, 60'000)), nullptr);
    }
  }

  void takeSubmitted() {
    const std::scoped_lock lock(mutex_);
    for (Transfer* transfer : std::exchange(submitted_, {})) {
      transfer->deadline = Clock::now() + transfer->request.timeout;
      nextDeadline_ = std::min(nextDeadline_, transfer->deadline);
      waiting_.push_back(transfer);
    }
  }

  std::optional<URLSession::Route> routeTo(const std::string& host) {
    const std::scoped_lock lock(mutex_);
    const auto found = routes_.find(host);
    return found == routes_.end() ? std::nullopt : std::optional(found->second);
  }

  void begin(Transfer& transfer) {
    if (idle_.empty()) {
      transfer.easy = create();
    } else {
      transfer.easy = idle_.back();
      idle_.pop_back();
    }
    if (!transfer.easy || !configure(transfer) ||
        curl_multi_add_handle(multi_, transfer.easy) != CURLM_OK) {
      curl_easy_cleanup(transfer.easy);
      return transfer.finish(
          URLError(Code::cannotConnectToHost, "the request could not be set up"));
    }
    underWay_.push_back(&transfer);
  }

  // A handle with all that holds for every request; null where curl has none to give.
  CURL* create() const {
    CURL* easy = curl_easy_init();
    Options options(easy);
    options.set(CURLOPT_PROTOCOLS_STR, "https");
    options.set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
    options.set(CURLOPT_FOLLOWLOCATION, 1L);
    options.set(CURLOPT_MAXREDIRS, maximumRedirects);
    options.set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_2TLS});
    options.set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    options.set(CURLOPT_SHARE, share_);
    options.set(CURLOPT_COOKIEFILE, "");  // cookies, and in memory
    options.set(CURLOPT_USERAGENT, curl_version_info(CURLVERSION_NOW)->version);
    options.set(CURLOPT_ACCEPT_ENCODING, "");  // all that curl can undo
    options.set(CURLOPT_NOSIGNAL, 1L);
    options.set(CURLOPT_QUICK_EXIT, 1L);  // a name being looked up holds nobody up
    options.set(CURLOPT_HEADERFUNCTION, takeHeader);
    options.set(CURLOPT_WRITEFUNCTION, takeBody);
    options.set(CURLOPT_POST, 1L);
    if (options.accepted) return easy;
    curl_easy_cleanup(easy);
    return nullptr;
  }

  // Sets all that is the request's own, over what an earlier one left.
  bool configure(Transfer& transfer) {
    const URLRequest& request = transfer.request;
    Options options(transfer.easy);
    const auto append = [&](Headers& list, const std::string& line) {
      curl_slist* longer = curl_slist_append(list.get(), line.c_str());
      options.accepted = options.accepted && longer;
      static_cast<void>(list.release());
      list.reset(longer);
    };
    for (const auto& header : request.headers) append(transfer.headers, header);
    append(transfer.headers, "Expect:");  // a large body goes out at once, without asking first
    const auto routed = routeTo(request.url.host());
    if (routed)
      append(transfer.connectTo,
             request.url.host() + "::127.0.0.1:" + std::to_string(routed->port));

    options.set(CURLOPT_URL, request.url.absoluteString().c_str());
    options.set(CURLOPT_HTTPHEADER, transfer.headers.get());
    options.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    options.set(CURLOPT_POSTFIELDS, request.body.data());
    options.set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeout.count()));
    options.set(CURLOPT_CONNECT_TO, transfer.connectTo.get());
    options.set(CURLOPT_NOPROXY, routed ? "*" : nullptr);
    options.set(CURLOPT_CAINFO, routed ? routed->certificateAuthority.c_str() : trust_.file);
    options.set(CURLOPT_CAPATH, routed ? nullptr : trust_.folder);
    options.set(CURLOPT_HEADERDATA, &transfer);
    options.set(CURLOPT_WRITEDATA, &transfer);
    options.set(CURLOPT_ERRORBUFFER, transfer.message.data());
    options.set(CURLOPT_PRIVATE, &transfer);
    return options.accepted;
  }

  void end(Transfer& transfer, CURLcode code) {
    const auto status = info<long>(transfer.easy, CURLINFO_RESPONSE_CODE);
    transfer.response.statusCode = static_cast<int>(status);
    // To curl any 1xx announces a reply, and it fails when none follows. One that HTTP doesn't know
    // was the reply.
    const bool answered = code == CURLE_OK || (status > 103 && status < 200);
    const Code error = answered ? Code() : errorCode(transfer.easy, code);
    if (code == CURLE_OK) {
      const bool isHTTP2 =
          info<long>(transfer.easy, CURLINFO_HTTP_VERSION) == CURL_HTTP_VERSION_2_0;
      atOnce_ = isHTTP2 ? atOnceOverHTTP2 : atOnceOverHTTP1;
    }
    std::string cause =
        transfer.message.front() ? transfer.message.data() : curl_easy_strerror(code);
    release(transfer);
    if (answered) return transfer.finish(std::move(transfer.response));
    transfer.finish(URLError(error, std::move(cause)));
  }

  // Ends what has been silent for too long.
  void expire() {
    const auto now = Clock::now();
    if (now < nextDeadline_) return;
    const auto isSilent = [&](const Transfer* transfer) { return transfer->deadline <= now; };
    std::vector<Transfer*> silent;
    std::ranges::copy_if(waiting_, std::back_inserter(silent), isSilent);
    std::ranges::copy_if(underWay_, std::back_inserter(silent), isSilent);
    std::erase_if(waiting_, isSilent);
    for (Transfer* transfer : silent) {
      if (transfer->easy) release(*transfer);
      transfer->finish(URLError(Code::timedOut, "no byte arrived in time"));
    }
    nextDeadline_ = Clock::time_point::max();
    for (const Transfer* transfer : waiting_)
      nextDeadline_ = std::min(nextDeadline_, transfer->deadline);
    for (const Transfer* transfer : underWay_)
      nextDeadline_ = std::min(nextDeadline_, transfer->deadline);
  }

  void release(Transfer& transfer) {
    std::erase(underWay_, &transfer);
    CURL* easy = std::exchange(transfer.easy, nullptr);
    curl_multi_remove_handle(multi_, easy);
    if (idle_.size() == idleHandles) return curl_easy_cleanup(easy);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, nullptr);  // it ends with the transfer
    idle_.push_back(easy);
  }

  std::mutex mutex_;
  // Guarded by mutex_:
  bool running_ = false;
  std::vector<Transfer*> submitted_;
  std::map<std::string, URLSession::Route> routes_;

  WorkLock atWork_;  // held while curl is at work; taken for good at exit

  // Constant once the thread runs:
  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  TrustStore trust_;

  // The network thread's:
  std::vector<CURL*> idle_;
  std::deque<Transfer*> waiting_;
  std::vector<Transfer*> underWay_;
  std::size_t atOnce_ = atOnceOverHTTP1;
  Clock::time_point nextDeadline_ = Clock::time_point::max();  // of all the first, or earlier
};

void Transfer::await_suspend(std::coroutine_handle<> coroutine) {
  awaiting = coroutine;
  Network::shared().submit(*this);
}

}  // namespace

Task<HTTPResponse, GeneralExecutor> URLSession::post(URLRequest request) {
  Transfer transfer(std::move(request));
  co_return co_await transfer;
}

void URLSession::route(std::string host, Route route) {
  Network::shared().route(std::move(host), std::move(route));
}

}  // namespace quorva::platform
