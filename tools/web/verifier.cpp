#include "tools/web/verifier.h"

#include <sys/eventfd.h>

#include <new>
#include <system_error>
#include <utility>

#include "tools/common/failure.h"

namespace nimbus::web {

Verifier::Verifier() : ready_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!ready_) throw tools::Failure("this system has no descriptor left");
}

Verifier::~Verifier() {
  if (thread_.joinable()) thread_.join();
}

void Verifier::ask(Passwords passwords, std::string password, Done done) {
  questions_.push_back({std::move(passwords), std::move(password), std::move(done)});
  if (questions_.size() == 1) begin();
}

void Verifier::begin() {
  // A deque's elements stay where they are while others come behind them.
  const Question& question = questions_.front();
  try {
    thread_ = std::thread([this, &question] { find_out(question); });
  } catch (const std::system_error&) {
    find_out(question);  // the system has no thread left: everybody waits, then
  }
}

void Verifier::find_out(const Question& question) noexcept {
  try {
    answer_ = question.passwords.role_of(question.password);
  } catch (const std::bad_alloc&) {
    answer_.reset();
  }
  eventfd_write(ready_.get(), 1);
}

void Verifier::collect() {
  eventfd_t count = 0;
  if (eventfd_read(ready_.get(), &count) != 0) return;
  if (thread_.joinable()) thread_.join();
  const Question question = std::move(questions_.front());
  const std::optional<Role> answer = answer_;
  questions_.pop_front();
  if (!questions_.empty()) begin();
  question.done(answer);
}

}  // namespace nimbus::web
