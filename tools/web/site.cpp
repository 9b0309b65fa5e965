#include "tools/web/site.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <functional>

#include "tools/web/files.h"
#include "tools/web/json_text.h"
#include "tools/web/tables.h"

namespace nimbus::web {
namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

// What never changes in an answer: no other site may show the page, read from it, or guess types.
void harden(Response& response, const Request& request) {
  // Safari takes a WebSocket for another origin, and a picture made of a stream is a blob.
  const std::string host = is_address(host_of(request.host)) || !request.host.empty()
                               ? " ws://" + request.host + " wss://" + request.host
                               : "";
  response.headers.emplace_back(
      "Content-Security-Policy",
      "default-src 'self'; connect-src 'self'" + host +
          "; img-src 'self' blob: data:; media-src 'self' blob:; object-src 'none'; base-uri "
          "'none'; form-action 'self'; frame-ancestors 'none'");
  response.headers.emplace_back("X-Content-Type-Options", "nosniff");
  response.headers.emplace_back("X-Frame-Options", "DENY");
  response.headers.emplace_back("Referrer-Policy", "no-referrer");
  response.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
  response.headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
}

Response refusal(unsigned status, std::string text) {
  return {
      .status = status, .body = std::move(text) + "\n", .headers = {{"Cache-Control", "no-store"}}};
}

Response json(std::string text) {
  return {.type = "application/json",
          .body = std::move(text),
          .headers = {{"Cache-Control", "no-store"}}};
}

struct Type {
  std::string_view ending;
  std::string_view type;
};
constexpr auto kTypes = std::to_array<Type>({
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".webmanifest", "application/manifest+json"},
});

std::string_view type_of(std::string_view name) {
  for (const Type& row : kTypes) {
    if (name.ends_with(row.ending)) return row.type;
  }
  return "application/octet-stream";
}

const File* find_file(std::string_view name) {
  for (const File& file : page_files()) {
    if (file.name == name) return &file;
  }
  return nullptr;
}

Response file_response(const File& file, const Request& request) {
  const std::string tag = "\"" + std::to_string(std::hash<std::string_view>()(file.content)) + "\"";
  Response response{.type = type_of(file.name),
                    .headers = {{"ETag", tag}, {"Cache-Control", "no-cache"}}};
  if (request.known_tag == tag) {
    response.status = 304;
  } else {
    response.fixed_body = file.content;
  }
  return response;
}

}  // namespace

std::string host_of(std::string_view header) {
  if (header.starts_with('[')) {
    const auto end = header.find(']');
    return end == std::string_view::npos ? "" : lower(header.substr(1, end - 1));
  }
  return lower(header.substr(0, header.find(':')));
}

bool is_address(std::string_view host) {
  std::array<unsigned char, 16> bytes{};
  const std::string text(host);
  return inet_pton(AF_INET, text.c_str(), bytes.data()) == 1 ||
         inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
}

bool same_origin(const Request& request) {
  if (request.origin.empty()) return true;
  return lower(request.origin) == (request.secure ? "https://" : "http://") + lower(request.host);
}

/// A name of somebody else that leads here would make a stranger's page one of ours.
bool ConsoleSite::knows_host(std::string_view header) const {
  const std::string host = host_of(header);
  return is_address(host) || host == "localhost" ||
         std::find(options_.names.begin(), options_.names.end(), host) != options_.names.end();
}

Answer ConsoleSite::answer(const Request& request) {
  Answer answer;
  if (!knows_host(request.host)) {
    answer.response = refusal(421, "no such host here");
  } else if ((request.upgrade || request.method != "GET") && !same_origin(request)) {
    answer.response = refusal(403, "a page of another site may not do that");
  } else if (request.upgrade) {
    answer = open(request);
  } else {
    answer.response = respond(request);
  }
  if (answer.peer == nullptr) harden(answer.response, request);
  return answer;
}

Answer ConsoleSite::open(const Request& request) {
  if (request.path() == "/ws/video") {
    const auto form = request.parameter("form");
    if (!form.empty() && form != "fmp4" && form != "raw") {
      return {.response = refusal(400, "no such form; expected fmp4 or raw")};
    }
    return {.peer = hub_.open_video(form == "raw" ? Form::raw : Form::fmp4)};
  }
  if (request.path() == "/ws/control") return {.peer = hub_.open_control({request.address, true})};
  return {.response = refusal(404, "not found")};
}

Response ConsoleSite::respond(const Request& request) {
  const auto path = request.path();
  if (request.method != "GET" && request.method != "HEAD") {
    Response response = refusal(405, "not allowed");
    response.headers.emplace_back("Allow", "GET, HEAD");
    return response;
  }
  if (path == "/healthz") return {.body = "ok\n", .headers = {{"Cache-Control", "no-store"}}};
  if (path == "/api/state") return json(hub_.state(Clock::now()) + "\n");
  if (path == "/api/commands") return json("{" + tables_json() + "}\n");
  if (path == "/ws/video" || path == "/ws/control") {
    Response response = refusal(426, "expected a WebSocket");
    response.headers.emplace_back("Upgrade", "websocket");
    return response;
  }
  return page(request);
}

Response ConsoleSite::page(const Request& request) const {
  constexpr std::string_view kFolder = "/page/";
  auto path = request.path();
  if (path == "/") path = "/page/index.html";
  if (path == "/favicon.svg") path = "/page/favicon.svg";
  const File* const file =
      path.starts_with(kFolder) ? find_file(path.substr(kFolder.size())) : nullptr;
  return file == nullptr ? refusal(404, "not found") : file_response(*file, request);
}

}  // namespace nimbus::web
