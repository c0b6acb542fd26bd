// Argument vectors for the option parser tests.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

namespace getopt_test {

// An argument vector owning its texts, null-terminated like main's.
class Argv {
  public:
    Argv(std::initializer_list<std::string> args) : Argv(std::vector(args)) {}
    explicit Argv(std::vector<std::string> args) : texts_(std::move(args)) {
        for (std::string &t : texts_) pointers_.push_back(t.data());
        pointers_.push_back(nullptr);
    }
    Argv(const Argv &) = delete;
    Argv &operator=(const Argv &) = delete;

    int argc() const { return static_cast<int>(texts_.size()); }
    char *const *argv() { return pointers_.data(); }
    char *operator[](int i) { return pointers_[static_cast<size_t>(i)]; }

  private:
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

}  // namespace getopt_test
