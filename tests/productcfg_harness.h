// ProductCfg.exe stand-ins (standins/productcfg): each records itself into a
// file of the test's own, signals an event of the test's own and stays for a
// minute. When the harness goes, every ProductCfg.exe this process started
// (itself or through the code under test) has ended.
#pragma once

#include <windows.h>

#include <tlhelp32.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "standin_control.h"
#include "support/unique_resource.h"

using standin::kBoundMs;
inline std::wstring ExeDirectory() { return standin::ExecutableDirectory(); }

// The stand-in in the folder of the test executable, the host's folder.
const std::wstring kBeside = ExeDirectory() + L"\\ProductCfg.exe";

class ProductCfgStandIns
{
public:
    // A work folder with a copy of the stand-in (a ProductCfg.exe elsewhere),
    // and the environment that every stand-in started from here on inherits.
    ProductCfgStandIns()
    {
        const std::wstring readyName = L"pcp-productcfg-ready-" + std::to_wstring(GetCurrentProcessId());
        ready.reset(CreateEventW(nullptr, FALSE, FALSE, readyName.c_str()));
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        workDir = temp + readyName;
        CreateDirectoryW(workDir.c_str(), nullptr);
        CopyFileW(kBeside.c_str(), (workDir + L"\\ProductCfg.exe").c_str(), FALSE);
        SetEnvironmentVariableW(L"PCP_PRODUCTCFG_RECORD", RecordPath().c_str());
        SetEnvironmentVariableW(L"PCP_PRODUCTCFG_READY", readyName.c_str());
        // Every stand-in is ended at the end of the test; until then it
        // stays, however slowly a loaded machine runs the test.
        SetEnvironmentVariableW(L"PCP_PRODUCTCFG_HOLD_MS", L"900000");
    }
    // Ends every stand-in, then removes the work folder; files that others
    // put there must be gone by then.
    ~ProductCfgStandIns()
    {
        EndAll();
        for (const wchar_t* name : {L"PCP_PRODUCTCFG_RECORD", L"PCP_PRODUCTCFG_READY", L"PCP_PRODUCTCFG_HOLD_MS"})
            SetEnvironmentVariableW(name, nullptr);
        for (const wchar_t* file : {L"\\record.txt", L"\\ProductCfg.exe"})
            DeleteFileW((workDir + file).c_str());
        RemoveDirectoryW(workDir.c_str());
    }
    ProductCfgStandIns(const ProductCfgStandIns&) = delete;
    ProductCfgStandIns& operator=(const ProductCfgStandIns&) = delete;

    // Starts image; unless suspended, waits until it has recorded itself.
    DWORD Start(const std::wstring& image, DWORD flags = 0)
    {
        wchar_t commandLine[] = L"\"ProductCfg.exe\"";
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION created{};
        EXPECT_TRUE(CreateProcessW(image.c_str(), commandLine, nullptr, nullptr, FALSE, flags | CREATE_NO_WINDOW,
                                   nullptr, nullptr, &startup, &created));
        UniqueHandle thread(created.hThread);
        processes.emplace_back(created.dwProcessId, UniqueHandle(created.hProcess));
        if ((flags & CREATE_SUSPENDED) == 0)
            TakeLine([&](DWORD pid) { return pid == created.dwProcessId; });
        return created.dwProcessId;
    }
    // Waits for a stand-in that the code under test started, takes it into
    // keeping and gives its line's fields: pid, session, current directory,
    // executable, command line: the first line not taken yet, whatever order
    // slow starts recorded themselves in.
    std::vector<std::wstring> AwaitLaunched()
    {
        std::vector<std::wstring> fields = TakeLine([](DWORD) { return true; });
        const DWORD pid = std::wcstoul(fields[0].c_str(), nullptr, 10);
        processes.emplace_back(pid, UniqueHandle(OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, pid)));
        return fields;
    }
    // Number of stand-ins that have recorded themselves so far.
    size_t Recorded() const { return RecordLines().size(); }
    // Whether stand-in pid, started or taken into keeping here, still runs.
    bool Running(DWORD pid)
    {
        const auto found = Find(pid);
        return found != processes.end() && WaitForSingleObject(found->second.get(), 0) == WAIT_TIMEOUT;
    }
    // Ends stand-in pid; untilGone: waits too until the identifier names no
    // process (Wine drops the object a little after the end).
    void End(DWORD pid, bool untilGone = true)
    {
        const auto found = Find(pid);
        ASSERT_NE(found, processes.end()) << pid;
        TerminateProcess(found->second.get(), 1);
        EXPECT_EQ(WaitForSingleObject(found->second.get(), kBoundMs), WAIT_OBJECT_0) << pid;
        processes.erase(found);
        for (DWORD ms = 0; untilGone && UniqueHandle(OpenProcess(SYNCHRONIZE, FALSE, pid)) && ms < kBoundMs;
             ms += 10)
            Sleep(10);
    }
    // Ends every stand-in in keeping and every other ProductCfg.exe this
    // process started (possibly not yet recorded), until each is gone.
    void EndAll()
    {
        for (const DWORD pid : Children())
        {
            UniqueHandle child(Find(pid) == processes.end() ? OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, pid)
                                                            : nullptr);
            if (child)
                processes.emplace_back(pid, std::move(child));
        }
        while (!processes.empty())
            End(processes.back().first);
        // Whatever is recorded now is of a process that has ended.
        taken.assign(RecordLines().size(), true);
    }

    std::wstring workDir; // holds a copy of the stand-in too

private:
    using Processes = std::vector<std::pair<DWORD, UniqueHandle>>;

    std::wstring RecordPath() const { return workDir + L"\\record.txt"; }
    // The record's lines, without their CR.
    std::vector<std::string> RecordLines() const
    {
        std::ifstream in(RecordPath().c_str(), std::ios::binary);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);)
            lines.push_back(line.substr(0, line.find('\r')));
        return lines;
    }
    // Waits until a recorded line not taken yet has a wanted pid, takes it
    // and gives its five fields; after the bound, a failure and empty fields.
    // Lines, not pids, are taken: Wine hands an ended process's pid out again.
    // The ready event only wakes the wait: the record decides, so a signal
    // that a slow start gives late, or two that merge into one, mislead
    // nothing.
    template <typename Wanted>
    std::vector<std::wstring> TakeLine(Wanted wanted)
    {
        const ULONGLONG until = GetTickCount64() + kStartBoundMs;
        for (;;)
        {
            const std::vector<std::string> lines = RecordLines();
            for (size_t i = 0; i < lines.size(); ++i)
            {
                std::vector<std::wstring> fields = Fields(lines[i]);
                if ((i < taken.size() && taken[i]) || !wanted(std::wcstoul(fields[0].c_str(), nullptr, 10)))
                    continue;
                taken.resize(std::max(taken.size(), i + 1));
                taken[i] = true;
                return fields;
            }
            const ULONGLONG now = GetTickCount64();
            if (now >= until)
            {
                ADD_FAILURE() << "no stand-in recorded itself within " << kStartBoundMs << " ms";
                return std::vector<std::wstring>(5);
            }
            WaitForSingleObject(ready.get(), static_cast<DWORD>(std::min<ULONGLONG>(until - now, 100)));
        }
    }
    static std::vector<std::wstring> Fields(const std::string& line)
    {
        std::wstring wide(line.size(), L'\0');
        wide.resize(MultiByteToWideChar(CP_UTF8, 0, line.data(), static_cast<int>(line.size()), &wide[0],
                                        static_cast<int>(wide.size())));
        std::vector<std::wstring> fields(5);
        std::wistringstream split(wide);
        for (size_t i = 0; i < fields.size(); ++i)
            std::getline(split, fields[i], i + 1 < fields.size() ? L'\t' : L'\n');
        return fields;
    }
    // Running ProductCfg.exe processes whose parent is this process.
    static std::vector<DWORD> Children()
    {
        std::vector<DWORD> children;
        const UniqueSnapshot snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
        PROCESSENTRY32W entry{};
        entry.dwSize = sizeof(entry);
        for (BOOL more = snapshot && Process32FirstW(snapshot.get(), &entry); more;
             more = Process32NextW(snapshot.get(), &entry))
        {
            if (entry.th32ParentProcessID == GetCurrentProcessId() && _wcsicmp(entry.szExeFile, L"ProductCfg.exe") == 0)
                children.push_back(entry.th32ProcessID);
        }
        return children;
    }
    Processes::iterator Find(DWORD pid)
    {
        return std::find_if(processes.begin(), processes.end(), [&](const auto& p) { return p.first == pid; });
    }

    // A process start on a loaded machine under Wine once took over 20 s;
    // the bound stays below the bound of a whole test case (60 s).
    static constexpr DWORD kStartBoundMs = 40000;

    UniqueHandle ready;
    Processes processes;
    std::vector<bool> taken; // by line of the record
};
