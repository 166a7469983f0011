// kroget as a process of its own, against targets or daemons. KROGET is the path of the program, given by the build.
//
//   WireTarget target;
//   target.always(answering(okReply("yes")));
//   EXPECT_EQ(run({"{T}/a"}, &target), succeeded("yes"));
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_process.h"
#include "support/wire_target.h"

using Arguments = std::vector<std::string>;

// How it ended, and what it wrote. The address of the target is written "{T}".
struct Ended {
  std::string outcome;
  std::string output;
  std::string errors;
  bool operator==(const Ended&) const = default;
};
inline void PrintTo(const Ended& ended, std::ostream* out) {
  *out << ended.outcome << "\noutput: " << ended.output.substr(0, 2000) << "\nerrors: " << ended.errors;
}

inline std::string replaced(std::string text, std::string_view what, std::string_view with) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
    text.replace(at, what.size(), with);
  return text;
}

inline std::string authority(const WireTarget& target) { return target.host() + ":" + target.port(); }

// Waits; targets do what their scripts say meanwhile.
template <typename Condition>
inline bool wait(Condition condition) {
  return waitUntil([&] {
    WireTarget::pumpAll();
    return condition();
  });
}

inline Arguments commandLine(Arguments arguments, const WireTarget* target = nullptr) {
  arguments.insert(arguments.begin(), KROGET);
  if (target != nullptr)
    for (std::string& argument : arguments) argument = replaced(argument, "{T}", authority(*target));
  return arguments;
}

inline Ended waitFor(ChildProcess& process, const WireTarget* target) {
  EXPECT_TRUE(wait([&] { return process.ended(); }));
  Ended ended{process.outcome(), process.output(), process.errors()};
  if (target != nullptr) ended.errors = replaced(ended.errors, authority(*target), "{T}");
  return ended;
}

inline Ended run(const Arguments& arguments, const WireTarget* target = nullptr) {
  ChildProcess process(commandLine(arguments, target));
  return waitFor(process, target);
}

// Runs a shell command; "$@" in it is kroget with its arguments.
inline Ended runInShell(const std::string& command, const Arguments& arguments, const WireTarget* target = nullptr) {
  Arguments line = {"/bin/sh", "-c", command, "sh"};
  for (const std::string& word : commandLine(arguments, target)) line.push_back(word);
  ChildProcess process(line);
  return waitFor(process, target);
}

inline Ended succeeded(std::string output = "") { return {"exit 0", std::move(output), ""}; }
inline Ended failed(int status, const std::string& line, std::string output = "") {
  return {"exit " + std::to_string(status), std::move(output), "kroget: " + line + "\n"};
}

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// Answers every request so, and keeps the connection.
inline WireScript answering(const std::string& reply) { return WireScript().request().send(reply).repeat(); }
