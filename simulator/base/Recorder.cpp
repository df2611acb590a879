#include "base/Recorder.h"

#include <algorithm>
#include <utility>

#include "Pulsekit3Simulator.h"

namespace pulsekit::simulator {

namespace {

constexpr size_t kMaximumWeight = size_t{64} << 20;

size_t weightOf(const Event &event) { return event.out.size() + event.in.size() + sizeof(Event); }

void appendBytes(std::string &line, const std::vector<uint8_t> &bytes) {
  static constexpr char digits[] = "0123456789ABCDEF";
  for (uint8_t byte : bytes) {
    line += ' ';
    line += digits[byte >> 4];
    line += digits[byte & 15];
  }
}

void appendSide(std::string &line, const char *sign, const std::vector<uint8_t> &bytes, uint32_t bits) {
  if (bits == 0) return;
  line += sign;
  appendBytes(line, bytes);
  if (bits % 8 != 0) line += '/' + std::to_string(bits % 8);
}

void appendFrame(std::string &line, const Event &event) {
  line += "SPI ";
  if (event.value == 0) line += '-';
  for (int pin = 0; pin < 16; ++pin) {
    if (event.value >> pin & 1) line += std::to_string(pin);
  }
  appendSide(line, " >", event.out, event.outBits);
  appendSide(line, " <", event.in, event.inBits);
}

void appendCall(std::string &line, const Event &event) {
  line += event.text;
  appendBytes(line, event.out);
  if (event.status != 0) {
    line += " = " + std::to_string(event.status);
  } else if (event.value < event.out.size()) {
    line += " took " + std::to_string(event.value);
  }
}

void appendOdd(std::string &line, const Event &event) {
  line += event.text;
  appendBytes(line, {static_cast<uint8_t>(event.value)});
}

void appendLine(std::string &line, const Event &event) {
  switch (event.kind) {
    case QTXSIM_EVENT_SPI:
      appendFrame(line, event);
      break;
    case QTXSIM_EVENT_PIN:
      line += "Pin " + std::to_string(event.value) + (event.output ? " out " : " in ") + std::to_string(event.level);
      break;
    case QTXSIM_EVENT_CLOCK:
      line += "Clock " + std::to_string(event.value);
      break;
    case QTXSIM_EVENT_ODD:
      appendOdd(line, event);
      break;
    default:
      appendCall(line, event);
      break;
  }
  line += '\n';
}

}  // namespace

uint64_t Recorder::add(Event &&event, const Clock &clock) {
  if (!wants(event.kind)) return 0;
  event.nanoseconds = clock.nanoseconds();
  weight_ += weightOf(event);
  const auto later = std::find_if(events_.rbegin(), events_.rend(),
                                  [&](const Event &other) { return other.nanoseconds <= event.nanoseconds; });
  const auto place = static_cast<uint64_t>(events_.rend() - later);
  events_.insert(later.base(), std::move(event));
  const uint64_t number = dropped_ + place + 1;
  while (weight_ > kMaximumWeight) {
    weight_ -= weightOf(events_.front());
    events_.pop_front();
    ++dropped_;
  }
  return number;
}

void Recorder::complete(uint64_t number, uint32_t status, uint32_t value) {
  if (number <= dropped_) return;
  Event &event = events_[static_cast<size_t>(number - dropped_ - 1)];
  event.status = status;
  event.value = value;
}

void Recorder::clear() {
  dropped_ += events_.size();
  events_.clear();
  weight_ = 0;
}

std::string Recorder::text(uint32_t kinds) const {
  std::string lines;
  for (const Event &event : events_) {
    if (event.kind & kinds) appendLine(lines, event);
  }
  return lines;
}

}  // namespace pulsekit::simulator
