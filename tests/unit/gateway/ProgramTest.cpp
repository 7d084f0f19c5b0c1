// The program itself: its signals, its configuration, its one manager. Everything it talks to is inside it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

/// The program with a plant in memory and a broker of its own, ended at the latest with the test.
class Running {
 public:
  explicit Running(const char* kelUrl = "loopback:unit?group=unit") {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelgw-program-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    const std::string plant = file("plant.yaml",
                                   "elements: {A.v: int}\n"
                                   "lists: {clients: Gw.clients, publications: Gw.pubs}\n"
                                   "subscribe: {P: {a: A.v}}\n");
    const std::string config =
        file("config", "[general]\nstore = \"memory:" + plant +
                           "\"\n[kel]\nclientDPList = \"Gw.clients\"\npublisherName = \"unit\"\n");
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    child_ = fork();
    if (child_ == 0) {
      dup2(ends[1], STDOUT_FILENO);
      close(ends[0]);
      close(ends[1]);
      setenv("KEL_URL", kelUrl, 1);
      unsetenv("PVSS_STORE");
      execl(KEL_GATEWAY_PROGRAM, KEL_GATEWAY_PROGRAM, "-config", config.c_str(), nullptr);
      _exit(127);
    }
    close(ends[1]);
    output_ = ends[0];
  }
  ~Running() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    close(output_);
    std::filesystem::remove_all(folder_);
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  /// Reads on until the text has been printed; false when the program ends before.
  bool prints(const std::string& text) {
    while (printed_.find(text) == std::string::npos) {
      std::array<char, 512> part{};
      const ssize_t count = read(output_, part.data(), part.size());
      if (count <= 0) {
        return false;
      }
      printed_.append(part.data(), static_cast<std::size_t>(count));
    }
    return true;
  }
  /// Sends the signal and gives how the program ended: "exit 0", "signal 15".
  std::string endedBy(int signal) {
    kill(child_, signal);
    return ended();
  }
  std::string ended() {
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = 0;
    return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WTERMSIG(status));
  }
  [[nodiscard]] const std::string& printed() const { return printed_; }

 private:
  [[nodiscard]] std::string file(const char* name, const std::string& text) const {
    std::string path = (folder_ / name).string();
    std::ofstream(path) << text;
    return path;
  }

  std::filesystem::path folder_;
  pid_t child_ = 0;
  int output_ = -1;
  std::string printed_;
};

TEST(ProgramRuns, subscribesAndEndsInOrderWithEitherSignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Running program;
    EXPECT_TRUE(
        program.prints("Created client mapping between DPE A.v and publication P\x1A"
                       "a\n"))
        << program.printed();
    EXPECT_EQ(program.endedBy(signal), "exit 0");
  }
}

TEST(ProgramRuns, endsWhenTheKelLibraryCannotTakeItsAddress) {
  Running program("nowhere:unit");
  EXPECT_FALSE(program.prints("Created"));
  EXPECT_EQ(program.ended(), "exit 2");
}

}  // namespace
