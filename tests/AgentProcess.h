#pragma once
// Running the agent binary as a separate process, as an operator or a supervisor would, with
// both output streams captured.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace AgentProcess {

struct Result {
   int code = -1;  // the exit status, or 128 + the signal that ended the process
   std::string out, err;
};

inline std::ostream& operator<<(std::ostream& os, const Result& r) {
   return os << "exit " << r.code << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

// Runs `program` with `args`, both output streams captured (read together, so that neither
// pipe can fill while the other is waited on).
inline Result run(const std::string& program, const std::vector<std::string>& args) {
   int out[2], err[2];
   if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
   }
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
   posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
   std::vector<std::string> words{program};
   words.insert(words.end(), args.begin(), args.end());
   std::vector<char*> argv;
   for (auto& w : words) argv.push_back(w.data());
   argv.push_back(nullptr);
   pid_t pid = 0;
   const int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
   posix_spawn_file_actions_destroy(&actions);
   ::close(out[1]);
   ::close(err[1]);
   if (rc != 0) {
      ::close(out[0]);
      ::close(err[0]);
      throw std::runtime_error("posix_spawn " + program + ": " + std::strerror(rc));
   }
   Result result;
   pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
   std::string* sinks[2] = {&result.out, &result.err};
   int open = 2;
   while (open > 0) {
      if (::poll(fds, 2, -1) < 0) {
         if (errno == EINTR) continue;
         break;
      }
      for (int i = 0; i < 2; ++i) {
         if (fds[i].fd < 0 || fds[i].revents == 0) continue;
         char buf[65536];
         const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
         if (n > 0) {
            sinks[i]->append(buf, static_cast<std::size_t>(n));
         } else if (n == 0 || errno != EINTR) {
            ::close(fds[i].fd);
            fds[i].fd = -1;
            --open;
         }
      }
   }
   int status = 0;
   while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
   }
   result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
   return result;
}

}  // namespace AgentProcess
