// Paths, hosts, origins, passwords, log-ins.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tools/common/failure.h"
#include "tools/web/own_names.h"
#include "tools/web/site.h"

namespace nimbus::web {
namespace {

using std::chrono::seconds;

struct Console {
  Guests guests;
  Hub hub{"board:4242",
          {[](std::string_view) { return true; },
           [](const std::array<std::int16_t, 3>&) { return true; }}};
  ConsoleSite site;

  explicit Console(SiteOptions options = {.names = {"camera.local"}})
      : site(hub, guests, std::move(options)) {
    hub.each_second(true, Clock::now());
  }

  Response get(const std::string& target, Request request = {}) {
    request.method = "GET";
    request.target = target;
    if (request.host.empty()) request.host = "10.0.0.1:8080";
    return response_to(request);
  }
  Response post(const std::string& target, const std::string& body, Request request = {}) {
    request.method = "POST";
    request.target = target;
    request.body = body;
    if (request.host.empty()) request.host = "10.0.0.1:8080";
    return response_to(request);
  }
  Response response_to(const Request& request) {
    Answer answer = site.answer(request);
    if (answer.later == nullptr) return std::move(answer.response);
    Response response;
    answer.later([&response](Response later) { response = std::move(later); });
    return response;
  }
  bool opens(const std::string& target, Request request) {
    request.method = "GET";
    request.target = target;
    request.upgrade = true;
    return site.answer(request).peer != nullptr;
  }
};

std::string header(const Response& response, const std::string& name) {
  for (const auto& [one, value] : response.headers) {
    if (one == name) return value;
  }
  return {};
}

TEST(WebSite, Paths) {
  Console console;
  EXPECT_EQ(console.get("/").status, 200U);
  EXPECT_NE(console.get("/").content().find("<title>"), std::string::npos);
  EXPECT_EQ(console.get("/page/main.js").type, "text/javascript; charset=utf-8");
  EXPECT_EQ(console.get("/favicon.svg").type, "image/svg+xml");
  EXPECT_EQ(console.get("/healthz").content(), "ok\n");
  EXPECT_EQ(console.get("/api/state").type, "application/json");
  EXPECT_EQ(console.get("/api/commands").status, 200U);
  EXPECT_EQ(console.get("/ws/video").status, 426U);
  for (const char* const path : {"/nosuch", "/page/", "/page/../main.cpp", "/etc/passwd", "/page",
                                 "/page/%2e%2e/x", "//", "/api/", "*", ""}) {
    EXPECT_EQ(console.get(path).status, 404U) << path;
  }
  EXPECT_EQ(console.post("/", "").status, 404U);
  Request request;
  request.method = "DELETE";
  request.target = "/";
  request.host = "localhost";
  EXPECT_EQ(console.site.answer(request).response.status, 405U);
}

TEST(WebSite, AFileThatIsKnownIsNotSentAgain) {
  Console console;
  Request request;
  request.known_tag = header(console.get("/page/main.js"), "ETag");
  EXPECT_EQ(console.get("/page/main.js", request).status, 304U);
}

TEST(WebSite, NamesOfOthersAreNotServed) {
  Console console;
  struct Row {
    const char* host;
    unsigned status;
  };
  for (const Row& row : {
           // clang-format off
           Row{"192.168.1.5:8080", 200}, {"127.0.0.1", 200}, {"[::1]:8080", 200}, {"localhost:8080", 200},
           {"LOCALHOST", 200}, {"camera.local:8080", 200}, {"Camera.Local", 200},
           {"evil.example", 421}, {"evil.example:8080", 421}, {"192.168.1.5.evil.example", 421},
           {"localhost.evil.example", 421}, {"[::1", 421}, {":8080", 421}, {"camera.local.", 421},
           // clang-format on
       }) {
    Request request;
    request.host = row.host;
    const Response answer = console.get("/", request);
    EXPECT_EQ(answer.status, row.status) << row.host;
    // What is allowed to be reached does not name them, either.
    const std::string policy = header(answer, "Content-Security-Policy");
    const bool named = policy.find(std::string(" ws://") + row.host) != std::string::npos;
    EXPECT_EQ(named, row.status == 200) << policy;
  }
  Request none;
  none.method = "GET";
  none.target = "/";
  EXPECT_EQ(console.site.answer(none).response.status, 421U);
}

/// As the machine, or the option, writes them.
TEST(WebSite, NamesMayHaveCapitals) {
  Console console({.names = {"Camera-1.Local"}});
  for (const char* const host : {"Camera-1.Local:8080", "camera-1.local:8080"}) {
    Request request;
    request.host = host;
    EXPECT_EQ(console.get("/", request).status, 200U) << host;
  }
}

TEST(WebSite, ThisMachinesNames) {
  std::array<char, 256> own{};
  ASSERT_EQ(gethostname(own.data(), own.size() - 1), 0);
  const auto names = own_names();
  for (const std::string& name : {std::string(own.data()), own.data() + std::string(".local")}) {
    EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
  }
}

TEST(WebSite, PagesOfOthersOpenAndPostNothing) {
  Console console;
  Request request;
  request.host = "10.0.0.1:8080";
  EXPECT_TRUE(console.opens("/ws/control", request));
  for (const char* const origin :
       {"http://evil.example", "null", "http://10.0.0.1", "https://10.0.0.1:8080",
        "http://10.0.0.1:80801", "http://10.0.0.1:8080.evil.example"}) {
    request.origin = origin;
    EXPECT_FALSE(console.opens("/ws/control", request)) << origin;
    EXPECT_FALSE(console.opens("/ws/video", request)) << origin;
    EXPECT_EQ(console.post("/api/command", R"({"words":["shot"]})", request).status, 403U);
  }
  request.origin = "http://10.0.0.1:8080";
  EXPECT_TRUE(console.opens("/ws/control", request));
  EXPECT_TRUE(console.opens("/ws/video?form=raw", request));
  EXPECT_FALSE(console.opens("/ws/video?form=other", request));
  EXPECT_TRUE(console.opens("/ws/video?a=b&form=raw", request));
  EXPECT_FALSE(console.opens("/ws/video?a=b&form=other", request));
  EXPECT_FALSE(console.opens("/ws/nosuch", request));
  EXPECT_EQ(console.post("/api/command", R"({"words":["shot"]})", request).status, 200U);
  request.secure = true;
  EXPECT_FALSE(console.opens("/ws/control", request));
}

TEST(WebSite, NothingForOtherSites) {
  Console console;
  const Response page = console.get("/");
  EXPECT_NE(header(page, "Content-Security-Policy").find("default-src 'self'"), std::string::npos);
  EXPECT_EQ(header(page, "X-Content-Type-Options"), "nosniff");
  EXPECT_EQ(header(page, "X-Frame-Options"), "DENY");
  EXPECT_EQ(header(page, "Referrer-Policy"), "same-origin");
  for (const auto& [name, value] : console.get("/api/state").headers) {
    EXPECT_NE(name.substr(0, 29), "Access-Control-Allow-Origin");
  }
  EXPECT_EQ(header(page, "Cross-Origin-Opener-Policy"), "");
  Request request;
  request.secure = true;
  EXPECT_EQ(header(console.get("/", request), "Cross-Origin-Opener-Policy"), "same-origin");
}

TEST(WebSite, Programs) {
  Console console;
  EXPECT_EQ(console.post("/api/command", R"({"words":["iso","400"]})").content(),
            "{\"ok\":true,\"text\":\"taken\"}\n");
  const Response refused = console.post("/api/command", R"({"words":["iso","fast"]})");
  EXPECT_EQ(refused.status, 400U);
  EXPECT_NE(refused.content().find("ISO cannot be 'fast'"), std::string::npos);
  EXPECT_EQ(console.post("/api/command", "iso").status, 400U);
  const std::string metrics(console.get("/metrics").content());
  EXPECT_NE(metrics.find("\nnimbus_service_up 1\n"), std::string::npos);
}

// --- Passwords ---------------------------------------------------------------------------------

struct Guarded : Console {
  Passwords passwords;
  explicit Guarded(SiteOptions options = {}) : Console(std::move(options)) {
    passwords.set(Role::operates, hash_of("boat"));
    passwords.set(Role::viewer, hash_of("shore"));
    site.use(passwords);
  }
  /// The status of a try.
  unsigned status_of(const std::string& password, const std::string& address,
                     const std::string& cookie = {}) {
    Request request;
    request.address = address;
    request.cookie = cookie;
    return post("/login", "password=" + password, request).status;
  }
  /// The cookie of a log-in; empty when there is none.
  std::string log_in(const std::string& password, const std::string& address = "10.0.0.9") {
    Request request;
    request.address = address;
    const std::string cookie =
        header(post("/login", "password=" + password, request), "Set-Cookie");
    return cookie.substr(0, cookie.find(';'));
  }
};

/// The cookie of a mark; empty when there is none. It goes to the log-in only.
std::string mark_in(const Response& response) {
  for (const auto& [name, value] : response.headers) {
    if (name != "Set-Cookie" || !value.starts_with("nimbus_mark=")) continue;
    EXPECT_NE(value.find("; Path=/login; HttpOnly; SameSite=Strict; Max-Age="), std::string::npos);
    return value.substr(0, value.find(';'));
  }
  return {};
}

TEST(WebPasswords, NothingWithoutOne) {
  Guarded console;
  EXPECT_EQ(console.get("/").status, 303U);
  EXPECT_EQ(console.get("/page/main.js").status, 303U);
  EXPECT_EQ(header(console.get("/"), "Location"), "/login");
  EXPECT_EQ(console.get("/login").status, 200U);
  EXPECT_EQ(console.get("/healthz").status, 200U);
  for (const char* const path : {"/api/state", "/api/commands", "/metrics"}) {
    EXPECT_EQ(console.get(path).status, 401U) << path;
  }
  EXPECT_EQ(console.post("/api/command", R"({"words":["shot"]})").status, 401U);
  Request request;
  request.host = "10.0.0.1:8080";
  EXPECT_FALSE(console.opens("/ws/control", request));
  EXPECT_FALSE(console.opens("/ws/video", request));
}

TEST(WebPasswords, TheLogInPageAndWhatItIsMadeOf) {
  Guarded console;
  const std::string page(console.get("/login").content());
  for (const char* const file :
       {"/favicon.svg", "/page/theme.js", "/page/theme.css", "/page/login.css"}) {
    EXPECT_NE(page.find(file), std::string::npos) << file;
    EXPECT_EQ(console.get(file).status, 200U) << file;
  }
  EXPECT_EQ(console.get("/page/login.html").status, 303U);
  EXPECT_EQ(console.get("/page/parts.css").status, 303U);
}

TEST(WebPasswords, APersonIsAskedAgainAndAProgramIsTold) {
  Guarded console;
  const Response again = console.post("/login", "password=wave");
  EXPECT_EQ(again.status, 403U);
  EXPECT_NE(again.content().find("role=\"alert\">that is not the password: try again"),
            std::string::npos);
  EXPECT_NE(again.content().find("sudo systemctl reload nimbus-web"), std::string::npos);
  EXPECT_NE(again.content().find("<form method=\"post\""), std::string::npos);
  Request request;
  request.content_type = "application/json";
  EXPECT_EQ(console.post("/login", R"({"password":"wave"})", request).content(),
            "that is not the password\n");
  EXPECT_EQ(console.post("/login", "password=boat", request).status, 403U);
  EXPECT_EQ(console.post("/login", R"({"password":"boat"})", request).status, 303U);
}

TEST(WebPasswords, TheOperatorsAndTheViewers) {
  Guarded console;
  Request request;
  request.host = "10.0.0.1:8080";
  request.cookie = console.log_in("boat");
  EXPECT_EQ(console.get("/", request).status, 200U);
  EXPECT_EQ(console.post("/api/command", R"({"words":["shot"]})", request).status, 200U);
  EXPECT_TRUE(console.opens("/ws/control", request));

  request.cookie = console.log_in("shore");
  EXPECT_EQ(console.get("/", request).status, 200U);
  EXPECT_EQ(console.post("/api/command", R"({"words":["shot"]})", request).status, 403U);
  EXPECT_EQ(console.log_in("wave"), "");
}

TEST(WebPasswords, CookiesAreForThisPageOnly) {
  Guarded console;
  Request request;
  request.address = "10.0.0.9";
  std::string cookie = header(console.post("/login", "password=boat", request), "Set-Cookie");
  EXPECT_NE(cookie.find("; HttpOnly; SameSite=Strict"), std::string::npos);
  EXPECT_EQ(cookie.find("Secure"), std::string::npos);
  request.secure = true;
  cookie = header(console.post("/login", "password=boat", request), "Set-Cookie");
  EXPECT_NE(cookie.find("; Secure"), std::string::npos);
}

TEST(WebPasswords, WhoWasLoggedInIsToldWhyItIsNot) {
  Guarded console;
  EXPECT_EQ(header(console.get("/"), "Location"), "/login");
  Request stale;
  stale.cookie = "nimbus=0123";
  EXPECT_EQ(header(console.get("/", stale), "Location"), "/login?ended=1");
  EXPECT_NE(console.get("/login?ended=1").content().find("your log-in has ended: log in again."),
            std::string::npos);
  EXPECT_EQ(console.get("/login").content().find("has ended"), std::string::npos);
}

TEST(WebPasswords, AlteredAndReplayedCookiesAreNothing) {
  Guarded console;
  Request request;
  request.host = "10.0.0.1:8080";
  const std::string cookie = console.log_in("boat");
  for (std::size_t at = 7; at < cookie.size(); ++at) {
    request.cookie = cookie;
    request.cookie[at] = request.cookie[at] == 'a' ? 'b' : 'a';
    EXPECT_EQ(console.get("/api/state", request).status, 401U);
  }
  for (const char* const wrong : {"nimbus=", "nimbus", "nimbus=0", "other=1", ";;;=", ""}) {
    request.cookie = wrong;
    EXPECT_EQ(console.get("/api/state", request).status, 401U) << wrong;
  }
  request.cookie = "a=b; " + cookie + "; c=d";
  EXPECT_EQ(console.get("/api/state", request).status, 200U);
  console.post("/logout", "", request);
  EXPECT_EQ(console.get("/api/state", request).status, 401U);
}

TEST(WebPasswords, ANewPasswordEndsTheLogInsByTheOldOne) {
  Guarded console;
  Request operates;
  Request views;
  operates.cookie = console.log_in("boat");
  views.cookie = console.log_in("shore");
  Passwords passwords = console.passwords;
  console.site.use(passwords);  // read anew, and the same
  EXPECT_EQ(console.get("/api/state", operates).status, 200U);
  passwords.set(Role::operates, hash_of("boat"));  // the same word, but set again
  console.site.use(passwords);
  EXPECT_EQ(console.get("/api/state", operates).status, 401U);
  EXPECT_EQ(console.get("/api/state", views).status, 200U);
  passwords.set(Role::viewer, "");
  console.site.use(passwords);
  EXPECT_EQ(console.get("/api/state", views).status, 401U);
}

/// A site whose passwords the test verifies, and a log-in that waits for that.
struct Slow {
  Hub hub{"board:4242", {}};
  Guests guests;
  std::function<void(std::optional<Role>)> tell;
  ConsoleSite site{
      hub, guests, {.verify = [this](const Passwords&, const std::string& word, const auto& done) {
        EXPECT_EQ(word, "boat");
        tell = done;
      }}};
  Passwords passwords;
  Response response;

  Slow() {
    passwords.set(Role::operates, "*");
    passwords.set(Role::viewer, "+");
    site.use(passwords);
    Request request;
    request.method = "POST";
    request.target = "/login";
    request.host = "localhost";
    request.body = "password=boat";
    const Answer answer = site.answer(request);
    response.status = 0;
    if (answer.later) answer.later([this](Response later) { response = std::move(later); });
  }
};

TEST(WebPasswords, WhoeverVerifiesMayTakeTime) {
  Slow console;
  ASSERT_TRUE(console.tell);
  EXPECT_EQ(console.response.status, 0U);
  console.tell(Role::operates);
  EXPECT_EQ(console.response.status, 303U);
  EXPECT_EQ(header(console.response, "X-Frame-Options"), "DENY");
  EXPECT_NE(header(console.response, "Set-Cookie"), "");
}

/// It is set anew while the old one is being verified.
TEST(WebPasswords, AnOldPasswordBeginsNoLogIn) {
  Slow console;
  console.passwords.set(Role::operates, "**");
  console.site.use(console.passwords);
  console.tell(Role::operates);
  EXPECT_EQ(console.response.status, 403U);
  EXPECT_EQ(header(console.response, "Set-Cookie"), "");

  Slow viewers;
  viewers.passwords.set(Role::operates, "**");  // which is not the one
  viewers.site.use(viewers.passwords);
  viewers.tell(Role::viewer);
  EXPECT_EQ(viewers.response.status, 303U);
}

TEST(WebPasswords, GuessingIsSlow) {
  Guarded console;
  Request request;
  request.address = "10.0.0.66";
  for (std::size_t i = 0; i < Tries::kMostOfOne; ++i) {
    EXPECT_EQ(console.post("/login", "password=guess", request).status, 403U);
  }
  const Response late = console.post("/login", "password=boat", request);
  EXPECT_EQ(late.status, 429U);
  EXPECT_EQ(header(late, "Set-Cookie"), "");
  EXPECT_NE(console.log_in("boat", "10.0.0.9"), "");
}

TEST(WebPasswords, TriesAreForgottenAfterAMinute) {
  Tries tries;
  const Time start = Time{} + seconds(100);
  for (std::size_t i = 0; i < Tries::kMostOfOne; ++i) EXPECT_TRUE(tries.allowed("a", start));
  EXPECT_FALSE(tries.allowed("a", start + seconds(59)));
  EXPECT_TRUE(tries.allowed("a", start + seconds(60)));
}

/// Those who try again and again have an end, which does not keep out who tries for the first time.
TEST(WebPasswords, WhoTriesForTheFirstTimeHasRoom) {
  Tries tries;
  const Time start = Time{} + seconds(100);
  std::size_t again = 0;
  for (int address = 0; address < 10; ++address) {
    EXPECT_TRUE(tries.allowed(std::to_string(address), start));
    while (tries.allowed(std::to_string(address), start)) ++again;
  }
  EXPECT_EQ(again, Tries::kMostAgain);
  EXPECT_TRUE(tries.allowed("another", start));
  EXPECT_FALSE(tries.allowed("another", start));
  for (std::size_t i = 11; i < Tries::kMostFirst; ++i) {
    EXPECT_TRUE(tries.allowed(std::to_string(i), start)) << i;
  }
  EXPECT_FALSE(tries.allowed("one too many", start));
  EXPECT_TRUE(tries.allowed("one too many", start + seconds(60)));
}

/// Strangers from everywhere, or behind the operator's own address, lock nobody out who was there
/// before: its browser has a mark, and tries of its own.
TEST(WebPasswords, StrangersDoNotLockTheOperatorOut) {
  Guarded console({.verify = [](const Passwords&, const std::string& password, const auto& done) {
    done(password == "boat" ? std::optional(Role::operates) : std::nullopt);
  }});
  Request request;
  request.address = "10.0.0.9";
  const std::string mark = mark_in(console.post("/login", "password=boat", request));
  ASSERT_NE(mark, "");
  for (int i = 0; i < 200; ++i) console.status_of("guess", "10.0.1." + std::to_string(i));
  for (int i = 0; i < 10; ++i) console.status_of("guess", "10.0.0.9");
  EXPECT_EQ(console.status_of("boat", "10.0.0.9"), 429U);
  EXPECT_EQ(console.status_of("boat", "10.0.0.200"), 429U);
  EXPECT_EQ(console.status_of("boat", "10.0.0.9", mark), 303U);
  for (std::size_t i = 1; i < Tries::kMostOfOne; ++i) {
    EXPECT_EQ(console.status_of("guess", "10.0.0.9", mark), 403U);
  }
  EXPECT_EQ(console.status_of("boat", "10.0.0.9", mark), 429U);
}

/// No viewer gets one, and a new password makes all of them worthless.
TEST(WebPasswords, MarksAreTheOperatorsOnly) {
  Guarded console;
  Request request;
  request.address = "10.0.0.9";
  EXPECT_EQ(mark_in(console.post("/login", "password=shore", request)), "");
  EXPECT_EQ(mark_in(console.post("/login", "password=wave", request)), "");
  const std::string mark = mark_in(console.post("/login", "password=boat", request));
  ASSERT_EQ(mark.size(), std::string("nimbus_mark=").size() + 32);
  EXPECT_EQ(console.status_of("wave", "10.0.0.9"), 403U);
  EXPECT_EQ(console.status_of("wave", "10.0.0.9"), 403U);
  EXPECT_EQ(console.status_of("wave", "10.0.0.9"), 429U);
  std::string altered = mark;
  altered.back() = altered.back() == 'a' ? 'b' : 'a';
  EXPECT_EQ(console.status_of("boat", "10.0.0.9", altered), 429U);
  EXPECT_EQ(console.status_of("wave", "10.0.0.9", mark), 403U);
  request.cookie = mark;
  const Response again = console.post("/login", "password=boat", request);
  EXPECT_EQ(again.status, 303U);
  EXPECT_EQ(mark_in(again), "") << "it has one";
  console.passwords.set(Role::operates, hash_of("boat"));
  console.site.use(console.passwords);
  EXPECT_EQ(console.status_of("boat", "10.0.0.9", mark), 429U);
}

TEST(WebPasswords, MarksHaveAnEnd) {
  Marks marks;
  const std::string first = marks.begin();
  EXPECT_TRUE(marks.has(first));
  EXPECT_FALSE(marks.has(""));
  for (std::size_t i = 0; i < Marks::kMost; ++i) EXPECT_NE(marks.begin(), first);
  EXPECT_FALSE(marks.has(first));
}

TEST(WebPasswords, LogInsRestAndEnd) {
  Sessions sessions;
  const Time start = Time{} + seconds(100);
  const std::string word = sessions.begin(Role::viewer, start);
  EXPECT_EQ(word.size(), 32U);
  EXPECT_EQ(sessions.role_of(word, start + std::chrono::hours(11)), Role::viewer);
  EXPECT_EQ(sessions.role_of(word, start + std::chrono::hours(22)), Role::viewer);
  EXPECT_FALSE(sessions.role_of(word, start + std::chrono::hours(35)));
  std::string first = sessions.begin(Role::operates, start);
  for (std::size_t i = 0; i < Sessions::kMost; ++i) {
    EXPECT_NE(sessions.begin(Role::operates, start + seconds(1)), first);
  }
  EXPECT_FALSE(sessions.role_of(first, start + seconds(2)));
}

TEST(WebPasswords, TheirFileIsForItsOwnerOnly) {
  const std::string path = testing::TempDir() + "/passwords";
  std::filesystem::remove(path);
  EXPECT_FALSE(Passwords::read(path).any());
  Passwords passwords;
  passwords.set(Role::operates, hash_of("boat"));
  passwords.write(path);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(Passwords::read(path).role_of("boat"), Role::operates);
  EXPECT_FALSE(Passwords::read(path).role_of("Boat"));
  EXPECT_FALSE(Passwords::read(path).role_of(""));
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  EXPECT_THROW(static_cast<void>(Passwords::read(path)), tools::Failure);
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  std::ofstream(path) << "captain x\n";
  EXPECT_THROW(static_cast<void>(Passwords::read(path)), tools::Failure);
  std::filesystem::remove(path);
}

/// Root sets it for the account that runs the program, whose folder it is.
TEST(WebPasswords, TheirFileBelongsToWhomItsFolderBelongs) {
  const std::string folder = testing::TempDir() + "/folder";
  std::filesystem::create_directories(folder);
  if (chown(folder.c_str(), 1000, 1001) != 0) GTEST_SKIP() << "only root can give files away";
  Passwords passwords;
  passwords.set(Role::operates, "x");
  passwords.write(folder + "/passwords");
  struct stat status {};
  ASSERT_EQ(stat((folder + "/passwords").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 1000U);
  EXPECT_EQ(status.st_gid, 1001U);
  std::filesystem::remove_all(folder);
}

TEST(WebPasswords, Forms) {
  EXPECT_EQ(form_value("a=1&password=x%26y+z%2B", "password"), "x&y z+");
  EXPECT_EQ(form_value("password=%", "password"), "%");
  EXPECT_EQ(form_value("password=%zz", "password"), "%zz");
  EXPECT_EQ(form_value("passwords=1", "password"), "");
  EXPECT_EQ(form_value("", "password"), "");
}

TEST(WebGuests, PlacesAreLimited) {
  Guests guests;
  for (std::size_t i = 0; i < Guests::kMostOfOne; ++i) EXPECT_TRUE(guests.enter("a"));
  EXPECT_FALSE(guests.enter("a"));
  guests.leave("a");
  EXPECT_TRUE(guests.enter("a"));
  for (std::size_t i = guests.count(); i < Guests::kMost; ++i) {
    EXPECT_TRUE(guests.enter("b" + std::to_string(i)));
  }
  EXPECT_FALSE(guests.enter("c"));
  guests.leave("nobody");
  EXPECT_EQ(guests.count(), Guests::kMost);
}

}  // namespace
}  // namespace nimbus::web
