// However the power goes during saves, the environment loads afterwards, as
// it was before a save or after it, and a save that was cut says so.
#include "vexasdk/Ubootenv.h"

#include <set>

#include "env_support.h"

using vexa::sim::Fault;
using vexa::sim::PageCache;

namespace vexa::test {
namespace {

constexpr long long kBothCopies = 2 * 65536;

class UbootenvPowerLossTest : public EnvTest {
protected:
    void SetUp() override
    {
        EnvTest::SetUp();
        // Entries that fill most of the data area, so that every 4 KiB of a
        // copy holds some of them; each change below lengthens an early
        // entry and so moves every later byte: a copy mixed of two versions
        // cannot pass its CRC.
        auto entries = sim::env::default_env_entries();
        for (int i = 0; i < 15; ++i)
            entries.push_back("pad" + std::to_string(i) + "=" + std::string(4000, char('a' + i)));
        original_ = sim::env::make_env_partition(entries);
        board().set_property("persist.vendor.sc.log.level", "7");
    }

    static int first_change(Ubootenv &env)
    {
        return env.updateValue("ubootenv.var.arch", "arm-with-a-much-longer-name");
    }
    static int second_change(Ubootenv &env)
    {
        return env.updateValue("ubootenv.var.board", "evb_rk3568_with_a_longer_name");
    }

    // The environment a board boots with now.
    std::string booted()
    {
        Ubootenv env;
        return env.init() == 0 ? dumped([&](int fd) { env.dump(fd); }) : "(lost)";
    }

    // What loading shows after the changes, applied without a cut.
    std::string state_after(std::initializer_list<int (*)(Ubootenv &)> changes)
    {
        board().write_file(kDevice, original_);
        for (auto change : changes) {
            Ubootenv env;
            EXPECT_EQ(change(env), 0);
        }
        return booted();
    }

    // Runs change on a freshly booted store with the power cut after `cut`
    // bytes have been written, every written byte reaching the medium.
    int cut_save(int (*change)(Ubootenv &), long long cut)
    {
        Ubootenv env;
        board().inject(Fault::on("write").at(kDevice).cut_after(cut));
        const int rc = change(env);
        board().clear_faults();
        cache().lose_power(PageCache::WriteBack::Ascending, cache().dirty_pages());
        return rc;
    }

    std::string original_;
};

TEST_F(UbootenvPowerLossTest, TwoCutSavesInARowLeaveAnEnvironmentBeforeOrAfterEach)
{
    const std::string s0 = state_after({});
    const std::string s1 = state_after({first_change});
    const std::string s2 = state_after({second_change});
    const std::string s12 = state_after({first_change, second_change});
    ASSERT_EQ(std::set<std::string>({s0, s1, s2, s12}).size(), 4u);

    for (long long first = 0; first <= kBothCopies; first += 4096) {
        for (long long second = 0; second <= kBothCopies; second += 4096) {
            SCOPED_TRACE("cuts after " + std::to_string(first) + " and " + std::to_string(second) +
                         " bytes");
            board().write_file(kDevice, original_);
            // A save that did not write both copies whole reports it.
            ASSERT_EQ(cut_save(first_change, first) == 0, first == kBothCopies);
            const std::string after_first = booted();
            ASSERT_TRUE(after_first == s0 || after_first == s1) << after_first;

            ASSERT_EQ(cut_save(second_change, second) == 0, second == kBothCopies);
            const std::string after_second = booted();
            if (after_first == s0)
                ASSERT_TRUE(after_second == s0 || after_second == s2) << after_second;
            else
                ASSERT_TRUE(after_second == s1 || after_second == s12) << after_second;
        }
    }
}

TEST_F(UbootenvPowerLossTest, PagesWrittenBackInAnyOrderLeaveAnEnvironmentBeforeOrAfter)
{
    const std::string s0 = state_after({});
    const std::string s1 = state_after({first_change});
    const PageCache::WriteBack orders[] = {PageCache::WriteBack::Ascending,
                                           PageCache::WriteBack::Descending,
                                           PageCache::WriteBack::Alternating};
    // kBothCopies + 1: the save runs to its end and the power goes before the
    // kernel has written anything back that was not flushed.
    for (long long cut = 0; cut <= kBothCopies + 1; cut += cut == kBothCopies ? 1 : 4096) {
        for (const auto order : orders) {
            for (size_t kept : {0, 1, 2, 8, 15}) {
                SCOPED_TRACE("cut after " + std::to_string(cut) + " bytes, order " +
                             std::to_string(static_cast<int>(order)) + ", " +
                             std::to_string(kept) + " pages written back");
                board().write_file(kDevice, original_);
                {
                    Ubootenv env;
                    board().inject(Fault::on("write").at(kDevice).cut_after(cut));
                    first_change(env);
                    board().clear_faults();
                }
                cache().lose_power(order, kept);
                const std::string now = booted();
                ASSERT_TRUE(now == s0 || now == s1) << now;
            }
        }
    }
}

TEST_F(UbootenvPowerLossTest, ACopyFoundBadIsWrittenFirst)
{
    // A save cut in the second copy leaves the first new and the second bad.
    board().write_file(kDevice, original_);
    ASSERT_EQ(cut_save(first_change, 65536 + 100), -3);
    ASSERT_TRUE(copy_at(65536).empty());

    // The next save starts with the bad copy, and the good one stays whole
    // until the bad one is on the medium.
    Ubootenv env;
    board().inject(Fault::on("write").at(kDevice).cut_after(65536));
    EXPECT_EQ(second_change(env), -3);
    board().clear_faults();
    EXPECT_THAT(copy_at(65536), ::testing::Contains("board=evb_rk3568_with_a_longer_name"));
    EXPECT_THAT(copy_at(0), ::testing::AllOf(::testing::Contains("arch=arm-with-a-much-longer-name"),
                                             ::testing::Contains("board=evb_rk3568")));
}

} // namespace
} // namespace vexa::test
