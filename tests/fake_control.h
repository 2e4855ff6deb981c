// The daemon's side of the control socket, played by a test.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ctl/control_client.h"
#include "util/control_paths.h"
#include "util/descriptor.h"
#include "util/unix_socket.h"

// The lines of an answer.
inline std::vector<AnswerLine> lines_in(const std::string& text) {
  std::vector<AnswerLine> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.emplace_back(line);
  return lines;
}

class FakeControl {
 public:
  // Serves one connection after another: answers a request with the bytes that stand for it in `answers`, and closes
  // the connection after those that do not end an answer, and when there are none. Of several answers with a zero byte
  // between them, the first ones are given once. `socket_path` is that of another program with the same protocol.
  FakeControl(const std::string& root, std::map<std::string, std::string> answers,
              const char* socket_path = kControlSocketPath)
      : replies(std::move(answers)) {
    const std::string path = root + socket_path;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::remove(path);
    EXPECT_EQ(unix_bind(listening.get(), path), 0);
    EXPECT_EQ(listen(listening.get(), 8), 0);
    server = std::thread([this] { serve(); });
  }
  ~FakeControl() {
    shutdown(listening.get(), SHUT_RDWR);
    server.join();
  }

 private:
  void serve() {
    for (;;) {
      const Descriptor client(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client.get() < 0) return;
      while (answer_to(client.get())) {
      }
    }
  }
  bool answer_to(int client) {
    std::string request;
    for (char byte = 0; byte != '\n'; request += byte) {
      if (recv(client, &byte, 1, 0) != 1) return false;
    }
    request.pop_back();
    std::string& held = replies[request];
    const std::string reply = held.substr(0, held.find('\0'));
    if (reply.size() < held.size()) held.erase(0, reply.size() + 1);
    send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
    return reply == "\n" || (reply.size() > 1 && reply.compare(reply.size() - 2, 2, "\n\n") == 0);
  }

  std::map<std::string, std::string> replies;
  const Descriptor listening{unix_stream_socket()};
  std::thread server;
};
