#include "uplink/name_lookup.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "util/descriptor.h"
#include "util/mutex.h"
#include "util/service_thread.h"

struct NameLookup::Job {
  std::string host;
  Descriptor wake = wake_up_descriptor();
  Mutex mutex;
  bool done GUARDED_BY(mutex) = false;
  Result result GUARDED_BY(mutex);

  void finish(Result found) {
    const MutexLock lock(mutex);
    result = std::move(found);
    done = true;
    const uint64_t one = 1;
    if (write(wake.get(), &one, sizeof(one)) < 0) return;  // it counts already
  }
  bool take(Result& out) {
    const MutexLock lock(mutex);
    if (done) out = result;
    return done;
  }
};

namespace {
constexpr size_t kAddresses = 8;

std::string text_of(int error) {
  return std::generic_category().message(error);
}

NameLookup::Result look_up(const std::string& host, int flags) {
  addrinfo hints{};
  hints.ai_flags = flags;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  NameLookup::Result result;
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (error != 0) {
    result.error = "failed to look up " + host + ": " + (error == EAI_SYSTEM ? text_of(errno) : gai_strerror(error));
    return result;
  }
  for (const addrinfo* entry = list; entry != nullptr && result.addresses.size() < kAddresses; entry = entry->ai_next) {
    char address[NI_MAXHOST];
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, address, sizeof(address), nullptr, 0, NI_NUMERICHOST) == 0) {
      result.addresses.emplace_back(address);
    }
  }
  freeaddrinfo(list);
  if (result.addresses.empty()) result.error = "failed to look up " + host + ": it has no addresses";
  return result;
}
}  // namespace

std::string NameLookup::start(const std::string& host) {
  Result old;
  if (job && !job->take(old)) return {};
  job = std::make_shared<Job>();
  job->host = host;
  if (job->wake.get() < 0) {
    job.reset();
    return "failed to look up " + host + ": " + text_of(errno);
  }
  Result numeric = look_up(host, AI_NUMERICHOST);
  if (numeric.error.empty()) {
    job->finish(std::move(numeric));
    return {};
  }
  const auto body = [](void* argument) -> void* {
    const std::unique_ptr<std::shared_ptr<Job>> ours(static_cast<std::shared_ptr<Job>*>(argument));
    (*ours)->finish(look_up((*ours)->host, AI_ADDRCONFIG));
    return nullptr;
  };
  auto shared = std::make_unique<std::shared_ptr<Job>>(job);
  pthread_t thread = 0;
  if (const int error = start_service_thread(&thread, body, shared.get())) {
    job.reset();
    return "failed to look up " + host + ": " + text_of(error);
  }
  static_cast<void>(shared.release());  // the thread's
  pthread_detach(thread);
  return {};
}

int NameLookup::descriptor() const {
  return job ? job->wake.get() : -1;
}

bool NameLookup::take(Result& out) {
  if (!job || !job->take(out)) return false;
  job.reset();
  return true;
}
