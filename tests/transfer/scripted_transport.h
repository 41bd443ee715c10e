#pragma once

// A transport that plays a script: what each step answers, where it fails, and how long the reads
// take. It keeps a list of what it was asked.

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/text.h"
#include "transfer/download_transport.h"

namespace zul::test {

class ScriptedTransport : public DownloadTransport {
 public:
  // The script.
  std::string failing_step;  ///< "OpenSession", "ReadData" and so on; empty for none
  std::uint32_t failure_code = 0;
  std::int32_t status = 200;
  std::string content_length;
  std::string effective_url;
  std::vector<std::string> chunks;
  bool ends_in_empty_read = false;  ///< announces one more chunk that is not there
  std::uint64_t ms_per_read = 0;
  std::function<void()> on_close;

  // What happened.
  std::vector<std::string> calls;
  std::uint64_t now_ms = 1000;
  std::uint32_t receive_timeout_ms = 0;
  bool open = false;

  bool OpenSession(std::string_view user_agent, std::uint32_t& code) override {
    open = true;
    return Play("OpenSession", std::string(user_agent), code);
  }
  void SetTimeouts(const TransportTimeouts& timeouts) override {
    receive_timeout_ms = timeouts.receive_ms;
    calls.push_back("SetTimeouts " + std::to_string(timeouts.resolve_ms) + " " +
                    std::to_string(timeouts.connect_ms) + " " + std::to_string(timeouts.send_ms));
  }
  bool Connect(const std::wstring& host, std::uint16_t port, std::uint32_t& code) override {
    return Play("Connect", WideToUtf8Lossy(host) + " " + std::to_string(port), code);
  }
  bool OpenRequest(const std::wstring& path, bool secure, std::uint32_t& code) override {
    return Play("OpenRequest", WideToUtf8Lossy(path) + (secure ? " secure" : ""), code);
  }
  bool SendAndReceive(std::uint32_t& code) override { return Play("SendAndReceive", "", code); }
  bool QueryStatus(std::int32_t& answer, std::uint32_t& code) override {
    if (!Play("QueryStatus", "", code)) return false;
    answer = status;
    return true;
  }
  std::string ContentLengthText() override { return content_length; }
  std::string EffectiveUrl() override { return effective_url; }
  bool QueryDataAvailable(std::size_t& available, std::uint32_t& code) override {
    if (!Play("QueryDataAvailable", "", code)) return false;
    available = next_ < chunks.size() ? chunks[next_].size() : (ends_in_empty_read ? 7 : 0);
    return true;
  }
  bool ReadData(void* buffer, std::size_t size, std::size_t& read, std::uint32_t& code) override {
    if (!Play("ReadData", "", code)) return false;
    now_ms += ms_per_read;
    read = next_ < chunks.size() ? std::min(size, chunks[next_].size()) : 0;
    if (read != 0) std::memcpy(buffer, chunks[next_++].data(), read);
    return true;
  }
  void Close() override {
    open = false;
    if (on_close) on_close();
  }

 private:
  bool Play(const std::string& step, const std::string& detail, std::uint32_t& code) {
    calls.push_back(detail.empty() ? step : step + " " + detail);
    const bool fails = step == failing_step;
    code = fails ? failure_code : 0;
    return !fails;
  }

  std::size_t next_ = 0;
};

}  // namespace zul::test
