// A connection on any stream of Asio's kind: TCP, TLS, or a test's.
#pragma once

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <memory>
#include <optional>
#include <utility>

#include "tools/web/connection.h"
#include "tools/web/tcp.h"

namespace nimbus::web {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;

// What a stranger may send, and how long that may take.
inline constexpr std::uint32_t kHeaderLimit = 8 * 1024;
inline constexpr std::uint64_t kBodyLimit = std::uint64_t{64} * 1024;
inline constexpr std::size_t kMessageLimit = std::size_t{4} * 1024;
inline constexpr std::chrono::seconds kRequestTime{10};
inline constexpr std::chrono::seconds kRestTime{15};
inline constexpr std::chrono::seconds kStandstill{5};

/// `Below` knows the connection below the stream:
///   static constexpr bool kSecure    whether a handshake comes first
///   static int fd(Stream&)           its socket, or -1
///   static void shut(Stream&)        no more to be sent
///   static void close(Stream&)       at once
template <typename Stream, typename Below>
class ConnectionOn final : public Connection,
                           public std::enable_shared_from_this<ConnectionOn<Stream, Below>> {
 public:
  ConnectionOn(Stream stream, ConnectionContext context)
      : socket_(std::move(stream)), context_(std::move(context)) {}

  void start() override {
    if constexpr (Below::kSecure) {
      expect(kRequestTime);
      lowest().async_handshake(Stream::server, [self = self()](beast::error_code error) {
        if (error) return self->close();
        self->read_request(kRequestTime);
      });
    } else {
      read_request(kRequestTime);
    }
  }

  void check(Time now) override {
    if (deadline_ && now >= *deadline_) return close();
    // Goodbye can be said once the handshake is over.
    if (peer_ != nullptr && !parser_) {
      if (const auto code = peer_->over()) return end(*code);
    }
    if (!writing_) return;
    const std::uint64_t progress = tcp_progress(Below::fd(lowest()));
    if (progress != progress_) {
      progress_ = progress;
      progressed_ = now;
    } else if (now - progressed_ >= kStandstill) {
      close();
    }
  }

  void close() override {
    peer_.reset();
    deadline_.reset();
    Below::close(lowest());
  }

 private:
  using Parser = http::request_parser<http::string_body>;
  using Text = http::response<http::span_body<const char>>;

  Stream& lowest() { return socket_.next_layer(); }
  auto self() { return this->shared_from_this(); }

  void expect(std::chrono::seconds time) { deadline_ = Clock::now() + time; }

  void begin_write() {
    writing_ = true;
    progressed_ = Clock::now();
    progress_ = tcp_progress(Below::fd(lowest()));
  }

  // What is called later, by the loop, is no recursion.
  // NOLINTBEGIN(misc-no-recursion)

  // --- HTTP ------------------------------------------------------------------------------------

  void read_request(std::chrono::seconds time) {
    expect(time);
    parser_.emplace();
    parser_->header_limit(kHeaderLimit);
    parser_->body_limit(kBodyLimit);
    http::async_read(lowest(), buffer_, *parser_,
                     [self = self()](beast::error_code error, std::size_t /*size*/) {
                       self->on_request(error);
                     });
  }

  void on_request(beast::error_code error) {
    deadline_.reset();
    if (error == http::error::header_limit) return refuse(431, "the header is too long\n");
    if (error == http::error::body_limit) return refuse(413, "the body is too long\n");
    if (error.category() == http::make_error_code(http::error::end_of_stream).category()) {
      if (error == http::error::end_of_stream || error == http::error::partial_message) {
        return close();
      }
      return refuse(400, "no HTTP\n");
    }
    if (error) return close();
    Request request = read(parser_->get());
    Answer answer = context_.site.answer(request);
    if (answer.peer != nullptr) return upgrade(std::move(answer.peer));
    const bool keep_alive = parser_->get().keep_alive() && !request.upgrade;
    const bool head = request.method == "HEAD";
    if (answer.later == nullptr) return respond(std::move(answer.response), keep_alive, head);
    answer.later([self = self(), keep_alive, head](Response response) {
      self->respond(std::move(response), keep_alive, head);
    });
  }

  Request read(const http::request<http::string_body>& message) const {
    const auto text = [](beast::string_view view) { return std::string(view.data(), view.size()); };
    Request request;
    request.method = text(message.method_string());
    request.target = text(message.target());
    request.host = text(message[http::field::host]);
    request.origin = text(message[http::field::origin]);
    request.cookie = text(message[http::field::cookie]);
    request.content_type = text(message[http::field::content_type]);
    request.known_tag = text(message[http::field::if_none_match]);
    request.body = message.body();
    request.address = *context_.place;
    request.secure = Below::kSecure;
    request.upgrade = websocket::is_upgrade(message);
    return request;
  }

  void refuse(unsigned status, std::string text) {
    Response response;
    response.status = status;
    response.body = std::move(text);
    respond(std::move(response), false, false);
  }

  void respond(Response response, bool keep_alive, bool head) {
    response_ = std::move(response);
    const std::string_view content = response_.content();
    message_.emplace(static_cast<http::status>(response_.status), 11);
    message_->set(http::field::server, "nimbus-web");
    message_->set(http::field::content_type,
                  beast::string_view(response_.type.data(), response_.type.size()));
    for (const auto& [name, value] : response_.headers) message_->insert(name, value);
    message_->keep_alive(keep_alive);
    message_->body() = {content.data(), head ? 0 : content.size()};
    if (response_.status == 304) {
      message_->body() = {};
    } else {
      message_->content_length(content.size());
    }
    begin_write();
    const auto done = [self = self(), keep_alive](beast::error_code error, std::size_t /*size*/) {
      self->on_response(error, keep_alive);
    };
    serializer_.emplace(*message_);
    if (head) {
      http::async_write_header(lowest(), *serializer_, done);
    } else {
      http::async_write(lowest(), *serializer_, done);
    }
  }

  void on_response(beast::error_code error, bool keep_alive) {
    writing_ = false;
    if (error || !keep_alive) return finish(error);
    read_request(kRestTime);
  }

  /// Reads on for a moment, so that the other side sees the answer and not a reset.
  void finish(beast::error_code error) {
    if (error) return close();
    Below::shut(lowest());
    expect(std::chrono::seconds(1));
    drain();
  }

  void drain() {
    lowest().async_read_some(boost::asio::buffer(waste_),
                             [self = self()](beast::error_code error, std::size_t /*size*/) {
                               if (error) return self->close();
                               self->drain();
                             });
  }

  // --- WebSocket -------------------------------------------------------------------------------

  void upgrade(std::unique_ptr<Peer> peer) {
    peer_ = std::move(peer);
    socket_.set_option(websocket::stream_base::timeout{websocket::stream_base::none(),
                                                       websocket::stream_base::none(), false});
    socket_.set_option(websocket::stream_base::decorator([](websocket::response_type& response) {
      response.set(http::field::server, "nimbus-web");
    }));
    socket_.read_message_max(kMessageLimit);
    socket_.auto_fragment(false);
    expect(kRequestTime);
    socket_.async_accept(parser_->get(),
                         [self = self()](beast::error_code error) { self->on_accepted(error); });
  }

  void on_accepted(beast::error_code error) {
    deadline_.reset();
    // Its time may have been over while the answer was on its way.
    if (error || peer_ == nullptr) return close();
    parser_.reset();
    buffer_.consume(buffer_.size());
    peer_->on_ready([this] { pump(); });
    read_message();
    pump();
  }

  void read_message() {
    socket_.async_read(buffer_, [self = self()](beast::error_code error, std::size_t /*size*/) {
      self->on_message(error);
    });
  }

  void on_message(beast::error_code error) {
    if (peer_ == nullptr) return;  // it is over
    if (error) return close();
    const auto data = buffer_.cdata();
    const std::string_view text(static_cast<const char*>(data.data()), data.size());
    if (!socket_.got_text()) return end(websocket::close_code::unknown_data);
    if (const auto code = peer_->received(text)) return end(*code);
    buffer_.consume(buffer_.size());
    read_message();
  }

  /// Says goodbye, for a moment.
  void end(std::uint16_t code) {
    peer_.reset();
    expect(std::chrono::seconds(1));
    socket_.async_close(websocket::close_code(code),
                        [self = self()](beast::error_code /*error*/) { self->close(); });
  }

  void pump() {
    if (writing_ || peer_ == nullptr) return;
    auto message = peer_->next();
    if (!message) return;
    sent_ = *std::move(message);
    begin_write();
    socket_.text(sent_.text);
    const std::array<boost::asio::const_buffer, 2> buffers{
        boost::asio::buffer(sent_.head),
        sent_.body == nullptr ? boost::asio::const_buffer() : boost::asio::buffer(*sent_.body)};
    socket_.async_write(buffers, [self = self()](beast::error_code error, std::size_t /*size*/) {
      self->writing_ = false;
      if (error) return self->close();
      self->sent_ = {};
      self->pump();
    });
  }

  // NOLINTEND(misc-no-recursion)

  websocket::stream<Stream, false> socket_;
  ConnectionContext context_;
  beast::flat_buffer buffer_;
  std::optional<Parser> parser_;
  Response response_;
  std::optional<Text> message_;
  std::optional<http::response_serializer<http::span_body<const char>>> serializer_;
  std::array<char, 512> waste_{};
  std::unique_ptr<Peer> peer_;
  Message sent_;
  bool writing_ = false;
  std::optional<Time> deadline_;
  std::uint64_t progress_ = 0;
  Time progressed_{};
};

}  // namespace nimbus::web
