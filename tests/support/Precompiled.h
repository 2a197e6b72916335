// Read once for all test programs. A test still includes what it uses. What only a few use stays out: with the option
// parser and the JSON library in it, each source of a test took three times as long.
#ifndef TARVO_SUPPORT_PRECOMPILED_H
#define TARVO_SUPPORT_PRECOMPILED_H

#include <gtest/gtest.h>

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
