// updateValue and getValue from several threads at once (the suite also runs
// under ThreadSanitizer).
#include "vexasdk/Ubootenv.h"

#include <string>
#include <thread>
#include <vector>

#include "env_support.h"

namespace vexa::test {
namespace {

class UbootenvThreadsTest : public EnvTest {};

TEST_F(UbootenvThreadsTest, ConcurrentUpdatesAndLookupsKeepEveryValue)
{
    Ubootenv env;
    constexpr int kThreads = 4;
    constexpr int kRounds = 25;
    std::vector<std::thread> threads;
    std::vector<int> misses(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&env, &misses, t] {
            const std::string name = "ubootenv.var.thread" + std::to_string(t);
            for (int round = 0; round < kRounds; ++round) {
                const std::string value = std::to_string(round);
                if (env.updateValue(name.c_str(), value.c_str()) != 0)
                    ++misses[t];
                const char *seen = env.getValue(name.c_str());
                if (seen == nullptr || value != seen)
                    ++misses[t];
                if (env.getValue("ubootenv.var.baudrate") == nullptr)
                    ++misses[t];
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(misses, std::vector<int>(kThreads, 0));

    Ubootenv fresh;
    for (int t = 0; t < kThreads; ++t) {
        const std::string name = "ubootenv.var.thread" + std::to_string(t);
        EXPECT_STREQ(fresh.getValue(name.c_str()), std::to_string(kRounds - 1).c_str());
    }
}

} // namespace
} // namespace vexa::test
