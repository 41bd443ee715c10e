#pragma once

// A transport with scripted results: the answer of each step, the step that fails, and the duration
// of a read.

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "transfer/download_transport.h"

namespace zul::test {

class ScriptedTransport : public DownloadTransport {
 public:
  std::string failing_step;  ///< "OpenSession", "ReadData" and so on; empty for none
  std::uint32_t failure_code = 0;
  std::int32_t status = 200;
  std::string content_length;
  std::string effective_url;
  std::vector<std::string> chunks;
  std::uint64_t ms_per_read = 0;
  std::function<void(const std::string& step)> before = [](const std::string&) {};

  std::uint64_t now_ms = 1000;
  bool open = false;

  bool OpenSession(std::string_view, std::uint32_t* code) override {
    open = true;
    return Play("OpenSession", code);
  }
  void SetTimeouts(const TransportTimeouts&) override {}
  bool Connect(const std::wstring&, std::uint16_t, std::uint32_t* code) override {
    return Play("Connect", code);
  }
  bool OpenRequest(const std::wstring&, bool, std::uint32_t* code) override {
    return Play("OpenRequest", code);
  }
  bool SendAndReceive(std::uint32_t* code) override { return Play("SendAndReceive", code); }
  bool QueryStatus(std::int32_t* answer, std::uint32_t* code) override {
    *answer = status;
    return Play("QueryStatus", code);
  }
  std::string ContentLengthText() override { return content_length; }
  std::string EffectiveUrl() override { return effective_url; }
  bool QueryDataAvailable(std::size_t* available, std::uint32_t* code) override {
    *available = next_ < chunks.size() ? chunks[next_].size() : 0;
    return Play("QueryDataAvailable", code);
  }
  bool ReadData(void* buffer, std::size_t size, std::size_t* read, std::uint32_t* code) override {
    now_ms += ms_per_read;
    *read = next_ < chunks.size() ? std::min(size, chunks[next_].size()) : 0;
    if (*read != 0) std::memcpy(buffer, chunks[next_++].data(), *read);
    return Play("ReadData", code);
  }
  void Close() override { open = false; }

 private:
  bool Play(const std::string& step, std::uint32_t* code) {
    before(step);
    *code = step == failing_step ? failure_code : 0;
    return step != failing_step;
  }

  std::size_t next_ = 0;
};

}  // namespace zul::test
