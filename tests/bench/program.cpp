// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "program.h"

#include "bench.h"
#include "support/testdevice.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using Bench::require;

namespace {

QByteArrayList encoded(const QStringList &texts)
{
    QByteArrayList result;
    for (const QString &text : texts)
        result << text.toUtf8();
    return result;
}

std::vector<char *> pointers(QByteArrayList &texts)
{
    std::vector<char *> result;
    for (QByteArray &text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

} // namespace

AsAlice::AsAlice()
{
    // The saved ids remain root's, and end with the next program.
    require(setresgid(TestDevice::alice, TestDevice::alice, 0) == 0
                && setresuid(TestDevice::alice, TestDevice::alice, 0) == 0,
            "cannot become alice");
}

AsAlice::~AsAlice()
{
    require(setresuid(0, 0, 0) == 0 && setresgid(0, 0, 0) == 0, "cannot become root again");
}

Program::Program(const QStringList &command, const QStringList &environment, QByteArray input)
    : m_command(encoded(command))
    , m_environment(encoded(environment))
    , m_input(std::move(input))
    , m_argv(pointers(m_command))
    , m_envp(pointers(m_environment))
{
}

QByteArray Program::run()
{
    std::array<int, 2> input = {};
    std::array<int, 2> output = {};
    require(pipe2(input.data(), O_CLOEXEC) == 0 && pipe2(output.data(), O_CLOEXEC) == 0, "cannot make a pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    pid_t process = 0;
    const int error = posix_spawn(&process, m_argv.front(), &actions, nullptr, m_argv.data(), m_envp.data());
    posix_spawn_file_actions_destroy(&actions);
    require(error == 0, "cannot start a program");
    close(input[0]);
    close(output[1]);
    require(write(input[1], m_input.constData(), size_t(m_input.size())) == m_input.size(), "a program does not read");
    close(input[1]);

    QByteArray result;
    std::array<char, 65536> buffer = {};
    for (ssize_t size = 0; (size = read(output[0], buffer.data(), buffer.size())) > 0;)
        result.append(buffer.data(), int(size));
    close(output[0]);
    int status = 0;
    while (waitpid(process, &status, 0) == -1 && errno == EINTR) { }
    return status == 0 ? result : QByteArray();
}
