// Loads ProductCfgPlg.dll as the host does and wires one plugin object to a
// simulated host.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "simhost/sim_host.h"

using QmCreateObjectFn = Status (*)(const wchar_t*, const InterfaceId&, void**);
using QmDestroyObjectFn = void (*)(const wchar_t*, void*);

class PluginModule
{
public:
    PluginModule() : module(LoadLibraryW(L"ProductCfgPlg.dll"))
    {
        if (module != nullptr)
        {
            create = reinterpret_cast<QmCreateObjectFn>(reinterpret_cast<void*>(GetProcAddress(module, "QmCreateObject")));
            destroy =
                reinterpret_cast<QmDestroyObjectFn>(reinterpret_cast<void*>(GetProcAddress(module, "QmDestroyObject")));
        }
    }
    ~PluginModule()
    {
        if (module != nullptr)
            FreeLibrary(module);
    }
    PluginModule(const PluginModule&) = delete;
    PluginModule& operator=(const PluginModule&) = delete;

    bool Loaded() const { return create != nullptr && destroy != nullptr; }

    IServPlugin* Create()
    {
        void* out = nullptr;
        if (create(L"productconfigplg", ids::ServPluginA, &out) != 0)
            return nullptr;
        return static_cast<IServPlugin*>(out);
    }
    void Destroy(IServPlugin* plugin) { destroy(L"productconfigplg", plugin); }

private:
    HMODULE module;
    QmCreateObjectFn create = nullptr;
    QmDestroyObjectFn destroy = nullptr;
};

// Sends the log library's lines (log.dll beside the plugin) to a file of
// this test's own, and reads back "function: text" of one level.
class LogCapture
{
public:
    LogCapture()
    {
        wchar_t dir[MAX_PATH];
        GetTempPathW(MAX_PATH, dir);
        wchar_t file[MAX_PATH];
        GetTempFileNameW(dir, L"plg", 0, file);
        path = file;
        SetEnvironmentVariableW(L"QM_LOG_FILE", path.c_str());
    }
    ~LogCapture()
    {
        SetEnvironmentVariableW(L"QM_LOG_FILE", nullptr);
        DeleteFileW(path.c_str());
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Lines "HH:MM:SS.mmm <thread> <LEVEL> <indent><function>: <text>" of
    // the given level name, as "<function>: <text>".
    std::vector<std::string> Messages(const std::string& level) const
    {
        std::ifstream in(path.c_str(), std::ios::binary);
        std::vector<std::string> result;
        std::string line;
        while (std::getline(in, line))
        {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            std::istringstream fields(line);
            std::string time, thread, name;
            fields >> time >> thread >> name;
            if (name != level)
                continue;
            std::string rest;
            std::getline(fields >> std::ws, rest);
            result.push_back(rest);
        }
        return result;
    }
    void Clear() const { std::ofstream(path.c_str(), std::ios::trunc); }

private:
    std::wstring path;
};

// A fresh host and plugin object for each test; the object is destroyed
// through the export at the end unless the test did so.
class PluginTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.Loaded());
        plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
    }
    void TearDown() override { DestroyPlugin(); }

    void DestroyPlugin()
    {
        if (plugin != nullptr)
            module.Destroy(plugin);
        plugin = nullptr;
    }

    // Init and Start with the host service loaded; waits for _DelayedLoad.
    void StartLoaded()
    {
        ASSERT_EQ(plugin->Init(host.get()), 0u);
        ASSERT_EQ(plugin->Start(), 0u);
        ASSERT_TRUE(host->WaitIdle());
    }

    LogCapture log;
    PluginModule module;
    std::unique_ptr<sim::Host> host = std::make_unique<sim::Host>();
    IServPlugin* plugin = nullptr;
};
