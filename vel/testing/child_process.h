// Second processes for tests: roles that a test program can also play.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <string>
#include <vel/os/linux/test_process.h>

namespace vel::testing {

/// The child's side: what it was told, and lines to and from its parent.
struct Child {
    std::string argument;

    void say(const std::string& line) { std::cout << line << std::endl; }

    /// The parent's next line; ends the process when the parent has gone.
    std::string hear() {
        std::string line;
        if (!std::getline(std::cin, line)) std::_Exit(125);
        return line;
    }
};

/// Something a test program does when it runs as a child; its result is the exit code. Defined at file scope:
///
///     const vel::testing::ChildRole holder("holder", [](vel::testing::Child& child) { ...; return 0; });
class ChildRole {
public:
    using Body = std::function<int(Child&)>;

    ChildRole(const std::string& name, Body body) { roles()[name] = std::move(body); }

    static std::map<std::string, Body>& roles() {
        static std::map<std::string, Body> all;
        return all;
    }
};

/// Plays the role instead of the tests in a program that was started as a child.
class ChildEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        const std::string name = os::test::environment("VEL_TEST_ROLE");
        if (name.empty()) return;
        const auto role = ChildRole::roles().find(name);
        if (role == ChildRole::roles().end()) std::_Exit(124);
        Child child{os::test::environment("VEL_TEST_ARGUMENT")};
        std::_Exit(role->second(child));
    }
};

inline ::testing::Environment* const child_environment = ::testing::AddGlobalTestEnvironment(new ChildEnvironment);

/// The parent's side. Every wait ends after 30 seconds.
class ChildProcess {
public:
    ChildProcess(const std::string& role, const std::string& argument)
        : process_("VEL_TEST_ROLE=" + role, "VEL_TEST_ARGUMENT=" + argument) {}

    /// True once the child has said this line; what it or its test framework said before is skipped.
    bool heard(const std::string& line) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        std::string said;
        for (char byte; process_.read(byte, deadline);) {
            if (byte != '\n') {
                said += byte;
                continue;
            }
            if (said == line) return true;
            said.clear();
        }
        return false;
    }

    bool tell(const std::string& line) { return process_.write(line + "\n"); }

    /// Ends the child at once, as a crash would.
    void kill() { process_.kill(); }

    /// Waits for the child to end; its exit code, -1 when it crashed.
    int join() { return process_.join(); }

private:
    os::test::Process process_;
};

} // namespace vel::testing
