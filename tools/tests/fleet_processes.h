#ifndef NK_TOOLS_TEST_FLEET_PROCESSES_H
#define NK_TOOLS_TEST_FLEET_PROCESSES_H

// The real parts a fleet test runs as separate processes: a private mosquitto started by the
// project's broker script, and programs such as nkdevice --simulate.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace fleet_test
{
inline std::string freshDirectory(char const* what)
{
    std::string pattern = std::string("/tmp/nk-") + what + "-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

inline std::string runScript(std::string const& command)
{
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("cannot run " + command);
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
    const int status = ::pclose(pipe);
    if (status != 0) throw std::runtime_error(command + " failed: " + output);
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r')) output.pop_back();
    return output;
}

// mosquitto from scripts/broker.sh; the test fails (the script exits non-zero) when it is missing.
class Broker
{
public:
    Broker() : m_dir(freshDirectory("broker")) { m_url = runScript("bash " NK_BROKER_SCRIPT " start " + m_dir); }
    ~Broker() { stop(); }
    void stop() { runScript("bash " NK_BROKER_SCRIPT " stop " + m_dir); }
    // Again on the same port, with the persisted sessions and retained messages.
    void restart()
    {
        stop();
        m_url = runScript("bash " NK_BROKER_SCRIPT " start " + m_dir + " " + m_url.substr(m_url.rfind(':') + 1));
    }
    std::string const& url() const { return m_url; }

private:
    std::string m_dir;
    std::string m_url;
};

class Process
{
public:
    // Standard output and error go to outputPath.
    Process(std::vector<std::string> arguments, std::string const& outputPath)
    {
        std::string emulator = NK_TEST_EMULATOR;
        if (!emulator.empty()) arguments.insert(arguments.begin(), emulator);
        std::vector<char*> argv;
        for (std::string& a : arguments) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        const int rc = posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) throw std::runtime_error("cannot start " + arguments[0]);
    }
    ~Process() { kill(SIGKILL); }
    // False once the process has ended on its own (its status is kept for kill to give).
    bool running()
    {
        if (m_pid <= 0) return false;
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) != m_pid) return true;
        m_pid = -1;
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return false;
    }
    // Sends the signal and waits for the end; the exit status, or -1 after a signal.
    int kill(int signal)
    {
        if (m_pid <= 0) return m_status;
        ::kill(m_pid, signal);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return m_status;
    }

private:
    pid_t m_pid = -1;
    int m_status = -1;
};
}

#endif
