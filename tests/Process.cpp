#include "tests/Process.h"

#include <fcntl.h>
#include <grp.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <utility>

#include "tests/Support.h"

namespace quorva::test {

Process::Process(const std::string& command) {
  std::array<int, 2> output{};
  if (pipe2(input_.data(), O_CLOEXEC) != 0 || pipe2(output.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  std::string shell = "/bin/sh", option = "-c", text = "exec " + command;
  char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, input_[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&files, output[1], STDOUT_FILENO);
  const int failure = posix_spawn(&id_, shell.c_str(), &files, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&files);
  close(output[1]);
  output_ = fdopen(output[0], "r");
  if (failure != 0) throw std::runtime_error("no process");
}

Process::Process(const std::function<bool()>& part) {
  std::fflush(stdout);
  id_ = fork();
  if (id_ < 0) throw std::runtime_error("no process");
  if (id_ > 0) return;
  const bool isStopped =
      geteuid() != 0 || (setgroups(0, nullptr) == 0 && setresgid(nobody, nobody, nobody) == 0 &&
                         setresuid(nobody, nobody, nobody) == 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const bool wentWell = isStopped && part();
  std::fflush(stdout);
  _exit(!wentWell);
}

Process::~Process() {
  if (id_ > 0) {
    signal(SIGKILL);
    end();
  }
  if (!output_) return;
  std::fclose(output_);
  for (const int fd : input_) close(fd);
}

void Process::tell() const {
  // This process holds the pipe's other end, too.
  if (write(input_[1], "!", 1) != 1) throw std::runtime_error("the pipe is full");
}

std::string Process::line() const {
  std::array<char, 4096> text{};
  return std::fgets(text.data(), text.size(), output_) ? text.data() : "";
}

std::string Process::rest() const {
  std::string all;
  for (std::string next; !(next = line()).empty();) all += next;
  return all;
}

void Process::signal(int number) const {
  kill(id_, number);
}

void Process::waitUntilStopped() const {
  waitpid(id_, nullptr, WUNTRACED);
}

int Process::end() {
  int status = 0;
  waitpid(std::exchange(id_, -1), &status, 0);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace quorva::test
