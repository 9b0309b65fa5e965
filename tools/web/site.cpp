#include "tools/web/site.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <functional>

#include "tools/ctl/json.h"
#include "tools/web/files.h"
#include "tools/web/json_text.h"
#include "tools/web/tables.h"

namespace nimbus::web {
namespace {

constexpr unsigned kMisdirected = 421;

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

// What never changes in an answer: no other site may show the page, read from it, or guess types.
void harden(Response& response, const Request& request) {
  // Safari takes a WebSocket for another origin, and a picture made of a stream is a blob.
  const std::string host = " ws://" + request.host + " wss://" + request.host;
  const bool known = response.status != kMisdirected;
  response.headers.emplace_back(
      "Content-Security-Policy",
      "default-src 'self'; connect-src 'self'" + (known ? host : "") +
          "; img-src 'self' blob: data:; media-src 'self' blob:; object-src 'none'; base-uri "
          "'none'; form-action 'self'; frame-ancestors 'none'");
  response.headers.emplace_back("X-Content-Type-Options", "nosniff");
  response.headers.emplace_back("X-Frame-Options", "DENY");
  // Not "no-referrer": browsers then send the log-in with "Origin: null", as a stranger's page
  // would.
  response.headers.emplace_back("Referrer-Policy", "same-origin");
  response.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
  // Without TLS browsers complain of it, but on the board itself.
  if (request.secure) {
    response.headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
  }
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

Response go_to(const std::string& path) {
  return {.status = 303, .headers = {{"Location", path}, {"Cache-Control", "no-store"}}};
}

constexpr std::string_view kCookie = "nimbus";
constexpr std::string_view kMark = "nimbus_mark";

// What a script cannot read, and no other site's page sends.
constexpr std::string_view kOwnOnly = "; HttpOnly; SameSite=Strict";
constexpr const char* kForAYear = "; Max-Age=31536000";

std::string cookie_text(std::string_view name, const std::string& value, std::string_view path,
                        bool secure) {
  std::string text(name);
  return text.append("=").append(value).append("; Path=").append(path).append(kOwnOnly).append(
      secure ? "; Secure" : "");
}

// What is served to whoever has no password yet: what the log-in page is made of.
constexpr auto kOpenFiles =
    std::to_array<std::string_view>({"favicon.svg", "theme.js", "theme.css", "login.css"});

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

/// What an address may name of the page's files; nullptr when it is none.
const File* file_of(std::string_view path) {
  constexpr std::string_view kFolder = "/page/";
  if (path == "/favicon.svg") return find_file("favicon.svg");
  if (path == "/") return find_file("index.html");
  return path.starts_with(kFolder) ? find_file(path.substr(kFolder.size())) : nullptr;
}

/// The page that asks for the password, and says why it does so again.
Response log_in_page(unsigned status, std::string_view problem) {
  constexpr std::string_view kPlace = R"(role="alert">)";
  std::string text(find_file("login.html")->content);
  text.insert(text.find(kPlace) + kPlace.size(), problem);
  return {.status = status,
          .type = "text/html; charset=utf-8",
          .body = std::move(text),
          .headers = {{"Cache-Control", "no-store"}}};
}

bool is_json(const Request& request) {
  return lower(request.content_type).starts_with("application/json");
}

/// The password of a log-in, as a form or as JSON; empty when there is none.
std::string password_in(const Request& request) {
  if (!is_json(request)) return form_value(request.body, "password");
  const auto object = ctl::parse_object(request.body);
  return object == nullptr ? "" : ctl::member_text(object.get(), "password");
}

/// To a person the page again, and what to do; to a program a line.
Response no_log_in(const Request& request, unsigned status, std::string text,
                   std::string_view advice) {
  if (is_json(request)) return refusal(status, std::move(text));
  return log_in_page(status, text.append(": ").append(advice).append("."));
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

ConsoleSite::ConsoleSite(Hub& hub, const Guests& guests, SiteOptions options)
    : hub_(hub), guests_(guests), options_(std::move(options)) {
  // Capitals make no other name.
  for (std::string& name : options_.names) name = lower(name);
}

/// A name of somebody else that leads here would make a stranger's page one of ours.
bool ConsoleSite::knows_host(std::string_view header) const {
  const std::string host = host_of(header);
  return is_address(host) || host == "localhost" ||
         std::find(options_.names.begin(), options_.names.end(), host) != options_.names.end();
}

void ConsoleSite::use(Passwords passwords) {
  for (const Role role : {Role::operates, Role::viewer}) {
    if (!passwords_.agrees(passwords, role)) sessions_.end(role);
  }
  if (!passwords_.agrees(passwords, Role::operates)) marks_.clear();
  passwords_ = std::move(passwords);
  hub_.has_password(passwords_.any());
}

std::optional<Role> ConsoleSite::role_of(const Request& request, Time now) {
  if (!passwords_.any()) return Role::operates;
  return sessions_.role_of(cookie_of(request.cookie, kCookie), now);
}

Answer ConsoleSite::answer(const Request& request) {
  const Time now = Clock::now();
  Answer answer;
  if (!knows_host(request.host)) {
    answer.response =
        refusal(kMisdirected,
                "this name is not known here: open the page by the board's address in figures, or "
                "tell nimbus-web of the name with --name");
  } else if ((request.upgrade || request.method == "POST") && !same_origin(request)) {
    answer.response = refusal(403, "a page of another site may not do that");
  } else if (request.upgrade) {
    answer = open(request, role_of(request, now));
  } else if (request.method == "POST" && request.path() == "/login") {
    answer = log_in(request, now);
  } else {
    answer.response = respond(request, role_of(request, now), now);
  }
  if (answer.peer == nullptr) harden(answer.response, request);
  return answer;
}

Answer ConsoleSite::open(const Request& request, std::optional<Role> role) {
  if (!role) return {.response = refusal(401, "log in first")};
  const auto path = request.path();
  if (path != "/ws/video" && path != "/ws/control") return {.response = refusal(404, "not found")};
  const auto allowed = [this, cookie = std::string(cookie_of(request.cookie, kCookie))] {
    return !passwords_.any() || sessions_.is_on(cookie, Clock::now());
  };
  Visitor visitor{request.address, role == Role::operates, allowed};
  if (path == "/ws/control") return {.peer = hub_.open_control(std::move(visitor))};
  const auto form = request.parameter("form");
  if (!form.empty() && form != "fmp4" && form != "raw") {
    return {.response = refusal(400, "no such form; expected fmp4 or raw")};
  }
  return {.peer = hub_.open_video(std::move(visitor), form == "raw" ? Form::raw : Form::fmp4)};
}

Response ConsoleSite::respond(const Request& request, std::optional<Role> role, Time now) {
  if (request.method == "POST") return post(request, role, now);
  if (request.method == "GET" || request.method == "HEAD")
    return get(request, role.has_value(), now);
  Response response = refusal(405, "not allowed");
  response.headers.emplace_back("Allow", "GET, HEAD, POST");
  return response;
}

Response ConsoleSite::get(const Request& request, bool allowed, Time now) {
  const auto path = request.path();
  if (path == "/healthz") return {.body = "ok\n", .headers = {{"Cache-Control", "no-store"}}};
  const bool program = path.starts_with("/api/") || path == "/metrics" || path.starts_with("/ws/");
  if (program && !allowed) return refusal(401, "log in first");
  if (path == "/api/state") return json(hub_.state(now) + "\n");
  if (path == "/api/commands") return json("{" + tables_json() + "}\n");
  if (path == "/metrics") {
    return {.type = "text/plain; version=0.0.4; charset=utf-8",
            .body = hub_.metrics(guests_.count(), now),
            .headers = {{"Cache-Control", "no-store"}}};
  }
  if (path == "/ws/video" || path == "/ws/control") {
    Response response = refusal(426, "expected a WebSocket");
    response.headers.emplace_back("Upgrade", "websocket");
    return response;
  }
  return page(request, allowed);
}

Response ConsoleSite::page(const Request& request, bool allowed) {
  if (request.path() == "/login") {
    const bool ended = !request.parameter("ended").empty();
    return log_in_page(200, ended ? "your log-in has ended: log in again." : "");
  }
  const File* const file = file_of(request.path());
  const bool open = file != nullptr &&
                    std::find(kOpenFiles.begin(), kOpenFiles.end(), file->name) != kOpenFiles.end();
  // Whoever still has a cookie was logged in.
  const bool was_in = !cookie_of(request.cookie, kCookie).empty();
  if (!allowed && !open) return go_to(was_in ? "/login?ended=1" : "/login");
  return file == nullptr ? refusal(404, "not found") : file_response(*file, request);
}

Response ConsoleSite::post(const Request& request, std::optional<Role> role, Time now) {
  const auto path = request.path();
  if (path == "/logout") return log_out(request);
  if (path == "/api/command") return command(request, role, now);
  return refusal(404, "not found");
}

Response ConsoleSite::command(const Request& request, std::optional<Role> role, Time now) {
  if (!role) return refusal(401, "log in first");
  if (role != Role::operates) return refusal(403, "you are logged in to watch only");
  const Hub::Result result = hub_.order(request.body, now);
  Response response = json(std::string(R"({"ok":)") + (result.ok ? "true" : "false") +
                           R"(,"text":)" + quoted(result.text) + "}\n");
  if (!result.ok) response.status = result.conflict ? 409 : 400;
  return response;
}

/// A stranger counts by its address, the operator's browser by its mark.
bool ConsoleSite::may_try(const Request& request, Time now) {
  const auto mark = cookie_of(request.cookie, kMark);
  return marks_.has(mark) ? known_.allowed(std::string(mark), now)
                          : strangers_.allowed(request.address, now);
}

Answer ConsoleSite::log_in(const Request& request, Time now) {
  if (!passwords_.any()) return {.response = go_to("/")};
  if (!may_try(request, now)) {
    Response response =
        no_log_in(request, 429, "too many tries in a minute", "wait a minute, then try again");
    response.headers.emplace_back("Retry-After", "60");
    return {.response = std::move(response)};
  }
  return {.later = [this, request](const Respond& respond) {
    options_.verify(passwords_, password_in(request),
                    [this, request, respond, asked = passwords_](std::optional<Role> role) {
                      // It may have been set anew meanwhile.
                      if (role && !passwords_.agrees(asked, *role)) role.reset();
                      Response response = logged_in(request, role);
                      harden(response, request);
                      respond(std::move(response));
                    });
  }};
}

Response ConsoleSite::logged_in(const Request& request, std::optional<Role> role) {
  if (!role) {
    return no_log_in(request, 403, "that is not the password",
                     "try again, or set a new one on the board with sudo nimbus-web --set-password "
                     "and sudo systemctl reload nimbus-web");
  }
  Response response = go_to("/");
  const std::string word = sessions_.begin(*role, Clock::now());
  response.headers.emplace_back("Set-Cookie", cookie_text(kCookie, word, "/", request.secure));
  // A viewer could go on with it to the operator's password.
  if (role == Role::operates && !marks_.has(cookie_of(request.cookie, kMark))) {
    response.headers.emplace_back(
        "Set-Cookie", cookie_text(kMark, marks_.begin(), "/login", request.secure) + kForAYear);
  }
  return response;
}

Response ConsoleSite::log_out(const Request& request) {
  sessions_.end(cookie_of(request.cookie, kCookie));
  Response response = go_to("/login");
  response.headers.emplace_back("Set-Cookie",
                                cookie_text(kCookie, "", "/", request.secure) + "; Max-Age=0");
  return response;
}

}  // namespace nimbus::web
