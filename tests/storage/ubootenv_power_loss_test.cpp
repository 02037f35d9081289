// A save cut off by a power loss never leaves a mixed environment.
#include "vexasdk/Ubootenv.h"

#include "env_support.h"

using vexa::sim::Fault;

namespace vexa::test {
namespace {

class UbootenvPowerLossTest : public EnvTest {};

std::string dump_of(Ubootenv &env)
{
    return EnvTest::dumped([&](int fd) { env.dump(fd); });
}

TEST_F(UbootenvPowerLossTest, CutSaveLeavesTheWholeOldOrTheWholeNewEnvironment)
{
    // Entries that fill most of the data area, so that every cut lands in
    // the middle of them.
    auto entries = sim::env::default_env_entries();
    for (int i = 0; i < 15; ++i)
        entries.push_back("pad" + std::to_string(i) + "=" + std::string(4000, static_cast<char>('a' + i)));
    const std::string original = sim::env::make_env_partition(entries);
    // The change moves every later entry, so a mix of copies cannot pass.
    auto change = [](Ubootenv &env) {
        return env.updateValue("ubootenv.var.arch", "arm-with-a-much-longer-name");
    };
    std::string old_dump, new_dump;
    board().write_file(kDevice, original);
    {
        Ubootenv env;
        old_dump = dump_of(env);
        ASSERT_EQ(change(env), 0);
        new_dump = dump_of(env);
        ASSERT_NE(old_dump, new_dump);
    }

    std::vector<long long> cuts = {1, 3, 4, 5, 777, 65535, 65537, 65539, 98765, 131071};
    for (long long at = 0; at <= 131072; at += 512)
        cuts.push_back(at);
    int saw_old = 0, saw_new = 0;
    for (long long cut : cuts) {
        SCOPED_TRACE("cut after " + std::to_string(cut) + " bytes");
        board().write_file(kDevice, original);
        {
            Ubootenv env;
            board().inject(Fault::on("write").at(kDevice).cut_after(cut));
            change(env);
            board().clear_faults();
        }
        Ubootenv fresh;
        ASSERT_EQ(fresh.init(), 0);
        const std::string now = dump_of(fresh);
        ASSERT_TRUE(now == old_dump || now == new_dump) << now;
        (now == old_dump ? saw_old : saw_new)++;
    }
    // Cuts inside the first copy keep the old one, later cuts the new one.
    EXPECT_GT(saw_old, 110);
    EXPECT_GT(saw_new, 120);
}

} // namespace
} // namespace vexa::test
