#pragma once
// Where a benchmark's CPU went, thread by thread: run time from /proc's schedstat, with
// voluntary and involuntary context switches, migrations between cores and page faults.
// Linux only.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

namespace orvo::bench {

struct ThreadUse {
    std::string name;
    double runNs = 0;
    long voluntary = 0, involuntary = 0, migrations = 0;
    long minorFaults = 0;  // pages touched first (or again after the allocator gave them back)
};

// One thread's figures; `base` is /proc/self/task/TID or /proc/thread-self.
inline ThreadUse threadUseOf(const std::string& base)
{
    ThreadUse u;
    std::ifstream comm(base + "/comm");
    std::getline(comm, u.name);
    std::ifstream(base + "/schedstat") >> u.runNs;
    std::ifstream status(base + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
            u.voluntary = std::atol(line.c_str() + 24);
        else if (line.rfind("nonvoluntary_ctxt_switches:", 0) == 0)
            u.involuntary = std::atol(line.c_str() + 27);
    }
    std::ifstream stat(base + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');  // the name may hold spaces: fields follow its last ')'
    if (close != std::string::npos) {
        std::istringstream fields(text.substr(close + 1));
        std::string field;
        for (int i = 0; i < 8 && fields >> field; ++i)  // state ppid pgrp session tty tpgid flags minflt
            if (i == 7)
                u.minorFaults = std::atol(field.c_str());
    }
    std::ifstream sched(base + "/sched");
    for (std::string line; std::getline(sched, line);)
        if (line.rfind("se.nr_migrations", 0) == 0)
            u.migrations = std::atol(line.c_str() + line.find(':') + 1);
    return u;
}

// Every live thread of the process, by thread id.
inline std::map<int, ThreadUse> threadUse()
{
    std::map<int, ThreadUse> out;
    DIR* dir = opendir("/proc/self/task");
    if (!dir)
        return out;
    while (dirent* e = readdir(dir))
        if (std::atoi(e->d_name) > 0)
            out[std::atoi(e->d_name)] = threadUseOf(std::string("/proc/self/task/") + e->d_name);
    closedir(dir);
    return out;
}

// One line for one thread's figures between `before` and `after`, per unit of work.
inline void printThreadUse(const char* side, const std::string& label, const ThreadUse& before, const ThreadUse& after,
                           long units, const char* unit = "picture")
{
    const double ms = units > 0 ? (after.runNs - before.runNs) / 1e6 / double(units) : 0;
    if (ms < 0.001)
        return;
    std::printf("  %s %s: %.3f ms, %.2f voluntary, %.2f involuntary switches, %.2f migrations, %.2f page faults per %s\n",
                side, label.c_str(), ms, double(after.voluntary - before.voluntary) / double(units),
                double(after.involuntary - before.involuntary) / double(units),
                double(after.migrations - before.migrations) / double(units),
                double(after.minorFaults - before.minorFaults) / double(units), unit);
}

// One line per thread of the process that ran between `before` and `after` (threadUse()).
inline void printThreadUse(const char* side, const std::map<int, ThreadUse>& before,
                           const std::map<int, ThreadUse>& after, long units, const char* unit = "picture")
{
    const int self = int(getpid());
    for (const auto& [tid, a] : after) {
        const auto b = before.find(tid);
        printThreadUse(side, a.name + (tid == self ? " (main)" : ""), b == before.end() ? ThreadUse() : b->second, a,
                       units, unit);
    }
}

}  // namespace orvo::bench
