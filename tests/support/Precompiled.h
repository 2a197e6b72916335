// Read once for all test programs. A test still includes what it uses.
#ifndef TARVO_SUPPORT_PRECOMPILED_H
#define TARVO_SUPPORT_PRECOMPILED_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#endif // TARVO_SUPPORT_PRECOMPILED_H
