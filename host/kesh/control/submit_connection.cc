#include "control/submit_connection.h"

#include <algorithm>

#include "control/request.h"

namespace kesh
{

namespace
{

constexpr size_t WINDOW_MAX = 4096;
constexpr size_t WINDOW_DEFAULT = 64;
constexpr double TIMEOUT_S_MIN = 0.001;
constexpr double TIMEOUT_S_MAX = 1e6;
constexpr double TIMEOUT_S_DEFAULT = 60;
// Of lines without an answer, and of answers that the client has not read. One line may go beyond.
constexpr size_t OPEN_BYTES_MAX = 256 << 10;
constexpr size_t OUTPUT_MAX = 64 << 10;
constexpr size_t KEPT_CAPACITY_MAX = 128 << 10;

void put(std::string &to, uint64_t value)
{
  to += ' ';
  to += std::to_string(value);
}

}  // namespace

submit_request submit_request_parse(const nlohmann::json &request)
{
  submit_request result;
  const auto older = request_number<size_t>(request, "threads", 1, WINDOW_MAX, WINDOW_DEFAULT);
  result.window = request_number<size_t>(request, "window", 1, WINDOW_MAX, older);
  const auto timeout_s = request_number(request, "timeout_s", TIMEOUT_S_MIN, TIMEOUT_S_MAX, TIMEOUT_S_DEFAULT);
  result.timeout = std::chrono::nanoseconds(static_cast<int64_t>(timeout_s * 1e9));
  return result;
}

submit_connection::~submit_connection()
{
  bounds_.arriving -= charged_;
}

void submit_connection::charge()
{
  const size_t held = input_.size() - start_;
  const size_t charged = held - std::min(held, input_bounds::UNCHARGED);
  bounds_.arriving = bounds_.arriving - charged_ + charged;
  charged_ = charged;
}

bool submit_connection::has_room(size_t size) const
{
  return open_ < window_ && output().size() < OUTPUT_MAX && (open_ == 0 || open_bytes_ + size <= OPEN_BYTES_MAX);
}

void submit_connection::received(std::string_view bytes)
{
  if (is_skipping_) {
    const size_t end = bytes.find('\n');
    is_skipping_ = end == std::string_view::npos;
    bytes.remove_prefix(is_skipping_ ? bytes.size() : end + 1);
  }
  input_ += bytes;
  charge();
}

bool submit_connection::next_line(std::string &line)
{
  const size_t end = input_.find('\n', searched_);
  searched_ = end == std::string::npos ? input_.size() : end;
  const size_t size = searched_ - start_;
  if (size > bounds_.line_max) {
    refuse_arriving("it has more than " + std::to_string(bounds_.line_max) + " bytes");
    return next_line(line);
  }
  if (end == std::string::npos) {
    if (charged_ > 0 && bounds_.arriving > bounds_.arriving_max) {
      refuse_arriving("too many bytes of lines arrive at once (limit " + std::to_string(bounds_.arriving_max) + ')');
    }
    return false;
  }
  is_held_up_ = !has_room(size);
  if (is_held_up_) {
    return false;
  }
  if (start_ == 0 && end + 1 == input_.size() && size > KEPT_CAPACITY_MAX) {
    line = std::move(input_);
    line.pop_back();
    input_ = {};
    searched_ = 0;
  } else {
    line.assign(input_, start_, size);
    searched_ = start_ = end + 1;
  }
  return true;
}

void submit_connection::refuse_arriving(std::string_view reason)
{
  refuse(++lines_, reason);
  has_failed_ = true;
  const size_t end = input_.find('\n', searched_);
  is_skipping_ = end == std::string::npos;
  searched_ = start_ = is_skipping_ ? input_.size() : end + 1;
  charge();
}

bool submit_connection::proceed()
{
  const uint64_t before = lines_;
  std::string line;
  is_held_up_ = false;
  while (next_line(line)) {
    lines_++;
    if (has_failed_) {
      refuse(lines_, "not submitted, a line before it was not");
      continue;
    }
    open_++;
    open_bytes_ += line.size();
    batch_.push_back({lines_, std::move(line)});
  }
  submit();
  if (start_ == input_.size()) {
    input_.clear();
    if (input_.capacity() > KEPT_CAPACITY_MAX) {
      input_ = {};
    }
    start_ = searched_ = 0;
  } else if (start_ > 0) {
    input_.erase(0, start_);
    searched_ -= start_;
    start_ = 0;
  }
  charge();
  end_cut_line();
  return lines_ > before;
}

void submit_connection::submit()
{
  if (batch_.empty()) {
    return;
  }
  const push_verdict verdict = items_.push(client_, batch_);
  for (size_t i = verdict.taken; i < batch_.size(); i++) {
    open_--;
    open_bytes_ -= batch_[i].text.size();
    refuse(batch_[i].number,
           i == verdict.taken ? verdict.refusal : std::string("not submitted, a line before it was not"));
    has_failed_ = true;
  }
  batch_.clear();
}

void submit_connection::end_cut_line()
{
  if (!input_ended_ || is_held_up_ || done_) {
    return;
  }
  if (!input_.empty()) {
    refuse(++lines_, "cut: no newline ends it");
    input_.clear();
    start_ = searched_ = 0;
    charge();
  }
  if (open_ == 0) {
    output_ += "done\n";
    done_ = true;
  }
}

void submit_connection::answered(const item_result &result)
{
  open_--;
  open_bytes_ -= result.size;
  if (result.fate == item_fate::not_submitted) {
    refuse(result.number, result.reason);
  } else {
    const bool is_applied = result.fate == item_fate::applied;
    output_ += is_applied ? "ok" : "unknown";
    put(output_, result.number);
    put(output_, result.sequence);
    if (is_applied) {
      put(output_, result.time_us);
      put(output_, result.attempts);
      put(output_, result.line);
    } else {
      put(output_, result.attempts);
      output_ += ' ';
      output_ += result.reason;
    }
    output_ += '\n';
  }
  has_failed_ = has_failed_ || result.fate != item_fate::applied;
}

void submit_connection::refuse(uint64_t number, std::string_view reason)
{
  output_ += "refused";
  put(output_, number);
  output_ += ' ';
  output_ += reason;
  output_ += '\n';
}

void submit_connection::sent(size_t count)
{
  output_start_ += count;
  if (output_start_ == output_.size() || output_start_ >= OUTPUT_MAX) {
    output_.erase(0, output_start_);
    output_start_ = 0;
  }
}

}  // namespace kesh
