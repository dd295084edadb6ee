// PerfPhase: marks one phase of a benchmark for `perf record --control`, so
// that a profile holds that phase alone. When the environment variable
// TOVREL_PERF_PHASE holds this phase's name and TOVREL_PERF_CTL and
// TOVREL_PERF_ACK name perf's control and acknowledgement fifos, the object
// enables perf's events when it is made and disables them when it dies,
// waiting each time for perf to acknowledge; otherwise it does nothing.
// Lives on the stack around the phase's code. The fifos are opened on first
// use and stay open until the program ends. One thread at a time.
// tools/bench-profile.sh runs perf this way.
#ifndef TOVREL_BENCH_PERFPHASE_H
#define TOVREL_BENCH_PERFPHASE_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace Tovrel {
namespace Bench {

class PerfPhase {
 public:
  explicit PerfPhase(const char* phase) {
    const char* wanted = std::getenv("TOVREL_PERF_PHASE");
    active_ = wanted != nullptr && std::strcmp(wanted, phase) == 0;
    if (active_) Command("enable\n");
  }
  ~PerfPhase() {
    if (active_) Command("disable\n");
  }
  PerfPhase(const PerfPhase&) = delete;
  PerfPhase& operator=(const PerfPhase&) = delete;

 private:
  static int Fifo(const char* variable, int mode) {
    const char* path = std::getenv(variable);
    if (path == nullptr) std::abort();
    const int fd = ::open(path, mode);
    if (fd < 0) std::abort();
    return fd;
  }

  // Sends a command to perf and waits for its "ack\n".
  static void Command(const char* command) {
    static const int control = Fifo("TOVREL_PERF_CTL", O_WRONLY);
    static const int ack = Fifo("TOVREL_PERF_ACK", O_RDONLY);
    const auto length = static_cast<ssize_t>(std::strlen(command));
    if (::write(control, command, static_cast<std::size_t>(length)) != length) std::abort();
    char reply[16];
    if (::read(ack, reply, sizeof reply) <= 0) std::abort();
  }

  bool active_ = false;
};

}  // namespace Bench
}  // namespace Tovrel

#endif
