// What ends a command: a failure (exit code 1) or wrong usage (2), each with what to do about it.
#pragma once

#include <stdexcept>
#include <string>

namespace tool {

class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string &text, std::string remedy = "", std::string trace = "")
      : std::runtime_error(text), remedy_(std::move(remedy)), trace_(std::move(trace)) {}
  const std::string &remedy() const { return remedy_; }
  const std::string &trace() const { return trace_; }

 private:
  std::string remedy_, trace_;
};

class Usage : public Failure {
 public:
  using Failure::Failure;
};

}  // namespace tool
