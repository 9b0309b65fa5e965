#include "tools/web/server.h"

#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>

#include "tools/common/failure.h"
#include "tools/ctl/accepts.h"
#include "tools/web/connection_tcp.h"
#include "tools/web/connection_tls.h"
#include "tools/web/guests.h"
#include "tools/web/hub.h"
#include "tools/web/link.h"
#include "tools/web/orders.h"
#include "tools/web/own_names.h"
#include "tools/web/rtp_link.h"
#include "tools/web/site.h"
#include "tools/web/tcp.h"
#include "tools/web/verifier.h"

namespace nimbus::web {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kSecond{1};
constexpr milliseconds kTellPeriod{100};
constexpr milliseconds kNoPlacePause{100};
constexpr int kHandedOver = 3;  // the first socket that a supervisor hands over

/// ADDRESS:PORT, [ADDRESS]:PORT.
tcp::endpoint endpoint_of(const std::string& text) {
  const auto colon = text.rfind(':');
  std::string address = text.substr(0, std::min(colon, text.size()));
  if (address.starts_with('[') && address.ends_with(']')) {
    address = address.substr(1, address.size() - 2);
  }
  error_code error;
  const auto parsed = asio::ip::make_address(address, error);
  const auto port = colon == std::string::npos
                        ? std::nullopt
                        : ctl::whole_integer(std::string_view(text).substr(colon + 1));
  if (error || !port || *port < 0 || *port > 65'535) {
    throw tools::Failure("cannot listen on '" + text +
                         "'; expected ADDRESS:PORT such as 0.0.0.0:8080 or [::]:8080");
  }
  return {parsed, static_cast<std::uint16_t>(*port)};
}

/// How many sockets a supervisor has handed over.
int handed_over() {
  const char* const process = std::getenv("LISTEN_PID");
  const char* const count = std::getenv("LISTEN_FDS");
  if (count == nullptr) return 0;
  if (process != nullptr && ctl::whole_integer(process) != std::int64_t{getpid()}) return 0;
  return static_cast<int>(ctl::whole_integer(count).value_or(0));
}

class Server {
 public:
  explicit Server(const ServerOptions& options);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  /// What the loop still holds must not outlive the hub.
  ~Server();
  void run() { loop_.run(); }

 private:
  struct Listener {
    tcp::acceptor acceptor;
    asio::steady_timer pause;
  };

  void load();
  void reload();
  void listen(const ServerOptions& options);
  void add_listener(tcp::acceptor acceptor);
  void accept(Listener& listener);
  void welcome(tcp::socket socket);
  void watch_service();
  void receive();
  void watch_verifier();
  void watch_deadline();
  void on_second();
  void on_tell();
  void tell_soon();
  void watch_signals();
  void look_after_guests(Time now);

  ServerOptions options_;
  Guests guests_;  // connections that the loop still holds at its end leave it
  asio::io_context loop_{1};
  Link link_;
  std::unique_ptr<RtpLink> rtp_;  // outlives the hub
  Hub hub_;
  ConsoleSite site_;
  std::unique_ptr<Tls> tls_;
  std::list<std::weak_ptr<Connection>> connections_;
  std::list<Listener> listeners_;
  Verifier verifier_;  // holds connections, which the loop outlives
  asio::posix::stream_descriptor service_;
  asio::posix::stream_descriptor verified_;
  asio::steady_timer deadline_;
  std::optional<Time> armed_;
  asio::steady_timer second_;
  asio::steady_timer tell_;
  bool telling_ = false;
  asio::signal_set signals_;
};

std::string service_name(const ServerOptions& options) {
  return options.service_host + ":" + std::to_string(options.service_port);
}

std::vector<std::string> names_of(const ServerOptions& options) {
  std::vector<std::string> names = own_names();
  names.insert(names.end(), options.names.begin(), options.names.end());
  return names;
}

Server::Server(const ServerOptions& options)
    : options_(options),
      link_(options.service_host, options.service_port),
      rtp_(options.rtp_host.empty()
               ? nullptr
               : std::make_unique<RtpLink>(options.rtp_host, options.rtp_port, options.sdp)),
      hub_(service_name(options),
           {[this](std::string_view text) { return link_.command(text); },
            [this](const std::array<std::int16_t, 3>& speed) { return link_.speed(speed); }}),
      site_(hub_, guests_,
            {.names = names_of(options),
             .verify =
                 [this](const Passwords& passwords, std::string password, Verifier::Done done) {
                   verifier_.ask(passwords, std::move(password), std::move(done));
                 }}),
      service_(loop_, dup(link_.fd())),
      verified_(loop_, dup(verifier_.fd())),
      deadline_(loop_),
      second_(loop_),
      tell_(loop_),
      signals_(loop_, SIGINT, SIGTERM, SIGHUP) {
  load();
  if (rtp_ != nullptr) hub_.hand_on(&rtp_->output());
  hub_.on_deadline([this] { watch_deadline(); });
  listen(options);
  watch_signals();
  watch_service();
  watch_verifier();
  // One before this may have been killed while somebody drove.
  link_.speed({});
  link_.command(order_to_rest());
  on_second();
}

void Server::watch_signals() {
  signals_.async_wait([this](error_code error, int signal) {
    if (error) return;
    if (signal != SIGHUP) return loop_.stop();
    reload();
    watch_signals();
  });
}

/// What is read from files: the passwords, and the certificate.
void Server::load() {
  Passwords passwords;
  std::unique_ptr<Tls> tls;
  if (!options_.passwords.empty()) passwords = Passwords::read(options_.passwords);
  if (!options_.tls.certificate.empty()) {
    if (options_.makes_certificate) make_certificate(options_.tls, names_of(options_));
    tls = std::make_unique<Tls>(options_.tls);
  }
  // All of it is good.
  site_.use(std::move(passwords));
  tls_ = std::move(tls);
}

/// Files that are no good change nothing.
void Server::reload() {
  try {
    load();
    std::fputs("nimbus-web: passwords and certificate are read anew\n", stderr);
  } catch (const tools::Failure& failure) {
    std::fprintf(stderr, "nimbus-web: %s; the old ones stay\n", failure.what());
  }
}

Server::~Server() {
  for (const auto& guest : connections_) {
    if (const auto connection = guest.lock()) connection->close();
  }
}

// --- Browsers ----------------------------------------------------------------------------------

void Server::listen(const ServerOptions& options) {
  const int handed = handed_over();
  for (int i = 0; i < handed; ++i) {
    // What is handed over may be of either family; only what it accepts is asked.
    add_listener(tcp::acceptor(loop_, tcp::v6(), kHandedOver + i));
  }
  if (handed > 0) return;
  const tcp::endpoint endpoint = endpoint_of(options.listen);
  tcp::acceptor acceptor(loop_);
  error_code error;
  acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(tcp::acceptor::max_listen_connections, error);
  if (error) throw tools::Failure("cannot listen on " + options.listen + ": " + error.message());
  add_listener(std::move(acceptor));
}

void Server::add_listener(tcp::acceptor acceptor) {
  listeners_.push_back({std::move(acceptor), asio::steady_timer(loop_)});
  accept(listeners_.back());
}

void Server::accept(Listener& listener) {
  listener.acceptor.async_accept([this, &listener](error_code error, tcp::socket socket) {
    if (!error) {
      welcome(std::move(socket));
      return accept(listener);
    }
    // No descriptor is left, perhaps: those who wait are not asked again at once.
    listener.pause.expires_after(kNoPlacePause);
    listener.pause.async_wait([this, &listener](error_code stopped) {
      if (!stopped) accept(listener);
    });
  });
}

void Server::welcome(tcp::socket socket) {
  error_code error;
  const auto peer = socket.remote_endpoint(error);
  if (error) return;
  const std::string address = peer.address().to_string();
  if (!guests_.enter(address)) {
    if (tls_ != nullptr) return;
    constexpr std::string_view kFull =
        "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    socket.non_blocking(true, error);
    socket.send(asio::buffer(kFull), 0, error);
    return;
  }
  const std::shared_ptr<const std::string> place(new std::string(address),
                                                 [this](const std::string* one) {
                                                   guests_.leave(*one);
                                                   delete one;
                                                 });
  tune_tcp(socket.native_handle());
  std::shared_ptr<Connection> connection;
  if (tls_ == nullptr) {
    connection = connect_tcp(std::move(socket), {site_, place});
  } else {
    connection = connect_tls(std::move(socket), *tls_, {site_, place});
  }
  connections_.push_back(connection);
  connection->start();
  tell_soon();
}

void Server::watch_verifier() {
  verified_.async_wait(asio::posix::stream_descriptor::wait_read, [this](error_code error) {
    if (error) return;
    verifier_.collect();
    watch_verifier();
  });
}

void Server::look_after_guests(Time now) {
  for (auto guest = connections_.begin(); guest != connections_.end();) {
    if (const auto connection = guest->lock()) {
      connection->check(now);
      ++guest;
    } else {
      guest = connections_.erase(guest);
    }
  }
}

// --- The service -------------------------------------------------------------------------------

void Server::watch_service() {
  service_.async_wait(asio::posix::stream_descriptor::wait_read, [this](error_code error) {
    if (error) return;
    receive();
    watch_deadline();
    watch_service();
  });
}

void Server::receive() {
  link_.receive([this](const ctl::Frame& frame, Time now) { hub_.take(frame, now); });
}

/// Waits for what the hub has to do next.
void Server::watch_deadline() {
  const auto deadline = hub_.deadline();
  if (!deadline || (armed_ && *armed_ <= *deadline)) return;
  armed_ = deadline;
  deadline_.expires_at(*deadline);
  deadline_.async_wait([this](error_code error) {
    if (error) return;
    armed_.reset();
    // What came while this process could not run has not been silent.
    receive();
    hub_.pass_time(Clock::now());
    watch_deadline();
  });
}

// --- Time --------------------------------------------------------------------------------------

void Server::on_second() {
  const Time now = Clock::now();
  link_.keep_registered();
  hub_.each_second(link_.heard(now), now);
  look_after_guests(now);
  second_.expires_after(kSecond);
  second_.async_wait([this](error_code error) {
    if (!error) on_second();
  });
}

/// Begins to tell what changes, if somebody watches and it is not done already.
void Server::tell_soon() {
  if (telling_) return;
  telling_ = true;
  on_tell();
}

void Server::on_tell() {
  tell_.expires_after(kTellPeriod);
  tell_.async_wait([this](error_code error) {
    if (error) return;
    if (hub_.watched()) hub_.tell_changes(Clock::now());
    telling_ = hub_.watched() || guests_.count() > 0;
    if (telling_) on_tell();
  });
}

}  // namespace

void serve(const ServerOptions& options) {
  Server server(options);
  server.run();
}

}  // namespace nimbus::web
