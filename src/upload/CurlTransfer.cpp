#include "upload/CurlTransfer.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <vector>

#include "util/Fatal.h"

namespace rovalis {

namespace {

CURLM* multiOf(void* handle) { return static_cast<CURLM*>(handle); }
CURL* easyOf(void* handle) { return static_cast<CURL*>(handle); }

void initializeCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("libcurl could not be initialised");
    });
}

std::string lowercase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

bool isTokenCharacter(unsigned char c) {
    if (std::isalnum(c)) return true;
    return std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
}

// Tab is the one control character a header value may hold.
bool isSafeHeaderValue(std::string_view value) {
    return std::none_of(value.begin(), value.end(), [](char ch) {
        const auto c = static_cast<unsigned char>(ch);
        return (c < 0x20 && c != '\t') || c == 0x7F;
    });
}

std::string urlPart(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, 0) != CURLUE_OK || text == nullptr) return {};
    std::string result(text);
    curl_free(text);
    return result;
}

struct CurlSlist {
    curl_slist* list = nullptr;
    ~CurlSlist() { curl_slist_free_all(list); }
    void append(const std::string& line) {
        curl_slist* extended = curl_slist_append(list, line.c_str());
        if (extended == nullptr) throw std::bad_alloc();
        list = extended;
    }
};

// The body as libcurl pulls it: from memory or from an open file, rewindable so that a
// request on a reused connection that the server had closed can be sent again.
struct BodySource {
    std::string_view data;
    std::size_t offset = 0;
    std::FILE* file = nullptr;
    bool readFailed = false;

    ~BodySource() {
        if (file != nullptr) std::fclose(file);
    }
};

size_t readBody(char* buffer, size_t size, size_t count, void* userdata) {
    auto& source = *static_cast<BodySource*>(userdata);
    const size_t capacity = size * count;
    if (source.file != nullptr) {
        const size_t got = std::fread(buffer, 1, capacity, source.file);
        if (got == 0 && std::ferror(source.file)) {
            source.readFailed = true;
            return CURL_READFUNC_ABORT;
        }
        return got;
    }
    const size_t length = std::min(capacity, source.data.size() - source.offset);
    std::copy_n(source.data.data() + source.offset, length, buffer);
    source.offset += length;
    return length;
}

int seekBody(void* userdata, curl_off_t offset, int origin) {
    auto& source = *static_cast<BodySource*>(userdata);
    if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
    if (source.file != nullptr) {
        return fseeko(source.file, static_cast<off_t>(offset), SEEK_SET) == 0 ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
    }
    if (static_cast<std::uint64_t>(offset) > source.data.size()) return CURL_SEEKFUNC_FAIL;
    source.offset = static_cast<std::size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

struct ResponseSink {
    const std::function<void(std::string_view)>* onData = nullptr;
    std::size_t received = 0;
    std::size_t limit = 0;
    bool tooLong = false;
};

size_t writeResponse(char* data, size_t size, size_t count, void* userdata) {
    auto& sink = *static_cast<ResponseSink*>(userdata);
    sink.received += size * count;
    if (sink.received > sink.limit) {
        // Fewer bytes than asked for end the transfer.
        sink.tooLong = true;
        return 0;
    }
    (*sink.onData)(std::string_view(data, size * count));
    return size * count;
}

// Notes the last time a byte moved in either direction, for the idle time-out.
struct Progress {
    curl_off_t uploaded = 0;
    curl_off_t downloaded = 0;
    std::chrono::steady_clock::time_point lastMovement = std::chrono::steady_clock::now();
};

// Judges the average rate over the last window from samples of the bytes moved so far,
// taken a few dozen times a window: the oldest sample kept is the newest one at least a
// window old, so memory stays small however often the transfer wakes.
class ProgressFloor {
public:
    using Clock = std::chrono::steady_clock;

    ProgressFloor(double bytesPerSecond, double windowSeconds, Clock::time_point start)
        : bytesPerSecond_(bytesPerSecond),
          window_(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(windowSeconds))),
          step_(window_ / 32) {
        samples_.push_back({start, 0});
    }

    // Whether fewer bytes than the floor moved over the last window, once there is one.
    bool isBelow(Clock::time_point now, curl_off_t moved) {
        if (bytesPerSecond_ <= 0 || window_ <= Clock::duration::zero()) return false;
        if (now - samples_.back().at >= step_) samples_.push_back({now, moved});
        while (samples_.size() > 1 && now - samples_[1].at >= window_) samples_.pop_front();
        const auto span = now - samples_.front().at;
        if (span < window_) return false;
        const double seconds = std::chrono::duration<double>(span).count();
        return static_cast<double>(moved - samples_.front().moved) < bytesPerSecond_ * seconds;
    }

private:
    struct Sample {
        Clock::time_point at;
        curl_off_t moved;
    };
    const double bytesPerSecond_;
    const Clock::duration window_;
    const Clock::duration step_;
    std::deque<Sample> samples_;
};

// The sockets of the connections a transfer handle has open (cached ones included), kept
// by libcurl's open and close callbacks.
curl_socket_t openSocket(void* clientp, curlsocktype, curl_sockaddr* address) {
    const curl_socket_t socket = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (socket != CURL_SOCKET_BAD) static_cast<std::vector<int>*>(clientp)->push_back(socket);
    return socket;
}

int closeSocket(void* clientp, curl_socket_t socket) {
    std::erase(*static_cast<std::vector<int>*>(clientp), socket);
    return ::close(socket);
}

// Bytes handed to the sockets that the peers have not acknowledged yet. libcurl counts a
// body as sent once the kernel has taken it, and a send buffer may hold megabytes that a
// slow link then takes a long time to carry. A cached connection has none.
curl_off_t unacknowledgedBytes(const std::vector<int>& sockets) {
    curl_off_t total = 0;
    for (const int socket : sockets) {
        int queued = 0;
        if (::ioctl(socket, SIOCOUTQ, &queued) == 0) total += queued;
    }
    return total;
}

int onProgress(void* userdata, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
    auto& progress = *static_cast<Progress*>(userdata);
    if (downloaded != progress.downloaded || uploaded != progress.uploaded) {
        progress.downloaded = downloaded;
        progress.uploaded = uploaded;
        progress.lastMovement = std::chrono::steady_clock::now();
    }
    return 0;
}

Error errorForCurlCode(CURLcode code, const char* detail) {
    long urlCode = URLError::unknown;
    std::string text;
    switch (code) {
    case CURLE_COULDNT_CONNECT:
        urlCode = URLError::cannotConnectToHost;
        text = "Could not connect to the server.";
        break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        urlCode = URLError::cannotFindHost;
        text = "A server with the specified hostname could not be found.";
        break;
    case CURLE_OPERATION_TIMEDOUT:
        urlCode = URLError::timedOut;
        text = "The request timed out.";
        break;
    case CURLE_ABORTED_BY_CALLBACK:
        urlCode = URLError::cancelled;
        text = "cancelled";
        break;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_FAIL_REWIND:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        urlCode = URLError::networkConnectionLost;
        text = "The network connection was lost.";
        break;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
        urlCode = URLError::serverCertificateUntrusted;
        text = "The certificate for this server is invalid.";
        break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
        urlCode = URLError::secureConnectionFailed;
        text = "An SSL error has occurred and a secure connection to the server cannot be made.";
        break;
    case CURLE_UNSUPPORTED_PROTOCOL:
        urlCode = URLError::unsupportedURL;
        text = "unsupported URL";
        break;
    case CURLE_URL_MALFORMAT:
        urlCode = URLError::badURL;
        text = "unsupported URL";
        break;
    case CURLE_WEIRD_SERVER_REPLY:
        urlCode = URLError::badServerResponse;
        text = "The server returned a bad response.";
        break;
    case CURLE_TOO_MANY_REDIRECTS:
        urlCode = URLError::httpTooManyRedirects;
        text = "too many HTTP redirects";
        break;
    case CURLE_READ_ERROR:
        urlCode = URLError::cannotOpenFile;
        text = "The body file could not be read.";
        break;
    default:
        text = "An unknown error occurred.";
        break;
    }
    if (detail != nullptr && detail[0] != '\0') {
        text += " (";
        text += detail;
        text += ")";
    } else {
        text += " (";
        text += curl_easy_strerror(code);
        text += ")";
    }
    return urlError(urlCode, std::move(text));
}

CurlTransferResult refused(Error error) { return CurlTransferResult{0, std::move(error), false}; }

}  // namespace

Error urlError(long code, std::string description) {
    return Error{NSURLErrorDomain, code, std::move(description)};
}

bool isLoopbackHost(std::string_view host) {
    std::string name = lowercase(host);
    if (name.size() >= 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
    if (name == "localhost" || name == "localhost.") return true;
    in_addr v4{};
    if (inet_pton(AF_INET, name.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    if (inet_pton(AF_INET6, name.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return false;
}

std::optional<Error> checkRequest(const UrlRequest& request, RequestTarget* target) {
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
    if (!url) throw std::bad_alloc();
    if (curl_url_set(url.get(), CURLUPART_URL, request.url.c_str(), 0) != CURLUE_OK) {
        return urlError(URLError::badURL, "unsupported URL");
    }
    RequestTarget parsed;
    parsed.scheme = lowercase(urlPart(url.get(), CURLUPART_SCHEME));
    parsed.host = urlPart(url.get(), CURLUPART_HOST);
    parsed.loopback = isLoopbackHost(parsed.host);
    if (parsed.scheme != "http" && parsed.scheme != "https") return urlError(URLError::unsupportedURL, "unsupported URL");
    if (parsed.host.empty()) return urlError(URLError::badURL, "unsupported URL");
    // A bearer token never travels in the clear beyond this machine.
    if (parsed.scheme == "http" && !parsed.loopback) {
        return urlError(URLError::unsupportedURL,
                        "The resource could not be loaded because plain HTTP is allowed only to this machine.");
    }
    if (request.httpMethod.empty() ||
        !std::all_of(request.httpMethod.begin(), request.httpMethod.end(),
                     [](char c) { return isTokenCharacter(static_cast<unsigned char>(c)); })) {
        return urlError(URLError::badURL, "The request's method is not valid.");
    }
    for (const auto& [name, value] : request.headers) {
        const bool nameValid = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
            return isTokenCharacter(static_cast<unsigned char>(c));
        });
        if (!nameValid || !isSafeHeaderValue(value)) {
            // The value may be a credential: it is not repeated in the message.
            return urlError(URLError::badURL, "The request's header \"" + (nameValid ? name : std::string("?")) +
                                                  "\" holds characters that a header may not hold.");
        }
    }
    if (target != nullptr) *target = std::move(parsed);
    return std::nullopt;
}

CurlTransfer::CurlTransfer() {
    initializeCurlOnce();
    multi_ = curl_multi_init();
    easy_ = curl_easy_init();
    if (multi_ == nullptr || easy_ == nullptr) fatalError("libcurl could not make a transfer handle");
}

CurlTransfer::~CurlTransfer() {
    curl_easy_cleanup(easyOf(easy_));
    curl_multi_cleanup(multiOf(multi_));
}

void CurlTransfer::wakeUp() { curl_multi_wakeup(multiOf(multi_)); }

CurlTransferResult CurlTransfer::perform(const UrlRequest& request, const Body& body, const CurlTransferLimits& limits,
                                         const std::function<void(std::string_view)>& onData,
                                         const std::function<bool()>& stop) {
    RequestTarget target;
    if (auto error = checkRequest(request, &target)) return refused(std::move(*error));
    if (stop()) return refused(urlError(URLError::cancelled, "cancelled"));

    BodySource source;
    std::uint64_t bodyLength = 0;
    if (body.file) {
        std::error_code ec;
        const auto status = std::filesystem::status(*body.file, ec);
        if (!std::filesystem::exists(status)) {
            return refused(urlError(URLError::fileDoesNotExist, "The file \"" + body.file->filename().string() +
                                                                    "\" couldn't be opened because there is no such file."));
        }
        source.file = std::fopen(body.file->c_str(), "rb");
        if (source.file == nullptr || !std::filesystem::is_regular_file(status)) {
            return refused(urlError(URLError::cannotOpenFile, "The file \"" + body.file->filename().string() +
                                                                  "\" couldn't be opened."));
        }
        bodyLength = std::filesystem::file_size(*body.file, ec);
        if (ec) return refused(urlError(URLError::cannotOpenFile, "The body file's size could not be read."));
    } else {
        source.data = body.data;
        bodyLength = body.data.size();
    }
    // A Content-Length that disagrees with the body would desynchronise a reused connection.
    if (const auto declared = request.valueForHTTPHeaderField("Content-Length")) {
        if (*declared != std::to_string(bodyLength)) {
            return refused(urlError(URLError::badURL, "The request's Content-Length " + *declared +
                                                          " does not match its body of " + std::to_string(bodyLength) +
                                                          " bytes."));
        }
    }

    CurlSlist headers;
    for (const auto& [name, value] : request.headers) {
        // "Name;" is libcurl's way to send a header with an empty value.
        headers.append(value.empty() ? name + ";" : name + ": " + value);
    }
    // Without these, libcurl would add headers of its own that the request does not carry.
    for (const char* own : {"Expect", "Accept", "Content-Type", "Transfer-Encoding"}) {
        if (!request.valueForHTTPHeaderField(own)) headers.append(std::string(own) + ":");
    }

    CURL* easy = easyOf(easy_);
    // Reset forgets the options but keeps the connection cache of the multi handle.
    curl_easy_reset(easy);
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    ResponseSink sink{&onData, 0, limits.maxResponseBytes, false};
    Progress progress;
    const long timeoutMs = std::max(1L, static_cast<long>(limits.idleTimeoutSeconds * 1000.0));

    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    // Loopback traffic never goes through a proxy named by the environment.
    if (target.loopback) curl_easy_setopt(easy, CURLOPT_PROXY, "");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers.list);
    if (request.httpMethod == "GET" && bodyLength == 0 && !body.file) {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodyLength));
        curl_easy_setopt(easy, CURLOPT_READFUNCTION, &readBody);
        curl_easy_setopt(easy, CURLOPT_READDATA, &source);
        curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &seekBody);
        curl_easy_setopt(easy, CURLOPT_SEEKDATA, &source);
        if (request.httpMethod != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &writeResponse);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &progress);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, &openSockets_);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &closeSocket);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, &openSockets_);

    CURLM* multi = multiOf(multi_);
    if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
        return refused(urlError(URLError::unknown, "The transfer could not be started."));
    }
    enum class Ending { finished, stopped, timedOut, failed } ending = Ending::failed;
    CURLcode code = CURLE_OK;
    const auto idleLimit = std::chrono::milliseconds(timeoutMs);
    ProgressFloor floor(limits.minimumBytesPerSecond, limits.lowSpeedWindowSeconds, progress.lastMovement);
    for (;;) {
        int running = 0;
        if (curl_multi_perform(multi, &running) != CURLM_OK) break;
        int queued = 0;
        bool done = false;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
                code = message->data.result;
                done = true;
            }
        }
        if (done) {
            ending = Ending::finished;
            break;
        }
        if (stop()) {
            ending = Ending::stopped;
            break;
        }
        // Idle means no byte moved either way: a server that took the body and never
        // answers is caught as well as one that never reads it. The floor catches one that
        // keeps the connection alive with a byte now and then.
        const auto now = std::chrono::steady_clock::now();
        const auto idleFor = now - progress.lastMovement;
        const curl_off_t moved = progress.uploaded - unacknowledgedBytes(openSockets_) + progress.downloaded;
        if (idleFor >= idleLimit || floor.isBelow(now, moved)) {
            ending = Ending::timedOut;
            break;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(idleLimit - idleFor).count();
        curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::clamp<long long>(left, 1, 250)), nullptr);
    }
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    // Removing an unfinished transfer closes its connection; a finished one stays cached.
    curl_multi_remove_handle(multi, easy);

    switch (ending) {
    case Ending::stopped:
        return CurlTransferResult{0, urlError(URLError::cancelled, "cancelled"), false};
    case Ending::timedOut:
        return CurlTransferResult{0, urlError(URLError::timedOut, "The request timed out."), true};
    case Ending::failed:
        return CurlTransferResult{0, urlError(URLError::unknown, "The transfer failed inside libcurl."), true};
    case Ending::finished:
        break;
    }
    if (code == CURLE_OK) return CurlTransferResult{status, std::nullopt, false};
    if (sink.tooLong) {
        return CurlTransferResult{0, urlError(URLError::badServerResponse, "The server's answer is too long."), true};
    }
    if (source.readFailed || code == CURLE_ABORTED_BY_CALLBACK) {
        return CurlTransferResult{0, urlError(URLError::cannotOpenFile, "The body file could not be read."), false};
    }
    Error error = errorForCurlCode(code, errorBuffer);
    // A refused protocol or a malformed URL will not get better by waiting.
    const bool transient = error.code != URLError::unsupportedURL && error.code != URLError::badURL &&
                           error.code != URLError::cannotOpenFile;
    return CurlTransferResult{0, std::move(error), transient};
}

}  // namespace rovalis
