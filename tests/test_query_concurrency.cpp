// A writer process reloads the device again and again while this process
// walks and queries it: nothing crashes, and every record read is one that
// was written whole.

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"
#include "tools/device_loader.h"

namespace {

constexpr int kContexts = 120;

// Version k of the device: context i is named "v<k>-c<i>", its state is
// k % 3, and interface 1000 + i is bound to it.
std::string version(int k)
{
    std::string json = "{\"cell\": 2, \"contexts\": [";
    for (int i = 1; i <= kContexts; ++i)
        json += "{\"id\": " + std::to_string(i) + ", \"name\": \"v" + std::to_string(k) + "-c" +
                std::to_string(i) + "\", \"state\": " + std::to_string(k % 3) + "}" +
                (i < kContexts ? "," : "");
    json += "], \"interfaces\": [";
    for (int i = 1; i <= kContexts; ++i)
        json += "{\"ifindex\": " + std::to_string(1000 + i) + ", \"iod\": " + std::to_string(i) +
                ", \"name\": \"e" + std::to_string(i) + "\", \"context\": \"v" +
                std::to_string(k) + "-c" + std::to_string(i) + "\"}" + (i < kContexts ? "," : "");
    return json + "]}";
}

double now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// True when `name` is "v<k>-c<id>" and `state` is k % 3 (state < 0: any).
bool whole(const char *name, uint32_t id, long state)
{
    int k = -1, i = -1;
    char tail = 0;
    if (sscanf(name, "v%d-c%d%c", &k, &i, &tail) != 2 || k < 0)
        return false;
    return static_cast<uint32_t>(i) == id && (state < 0 || state == k % 3);
}

class Concurrency : public tarntest::HostTest {
protected:
    void TearDown() override
    {
        tarntest::reset_library();
        HostTest::TearDown();
    }
};

TEST_F(Concurrency, ReaderSeesOnlyWholeRecordsWhileAWriterReloads)
{
    tarntest::reset_library();
    tarntest::load_device_json(version(0));
    ASSERT_EQ(1u, tarn_api_init());

    fflush(nullptr);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        const double end = now() + 2.5;
        for (int k = 1; now() < end; ++k)
            if (tarndev::load_device_text(version(k), "writer").status != 0)
                _exit(3);
        _exit(0);
    }

    long walks = 0, records = 0, lookups = 0;
    const double end = now() + 2.0;
    while (now() < end) {
        tarn_context_info_t info;
        uint32_t last = 0;
        for (uint32_t id = tarn_get_next_context_info(0, &info); id != 0;
             id = tarn_get_next_context_info(id, &info)) {
            ASSERT_GT(id, last) << "ascending";
            last = id;
            ASSERT_TRUE(whole(info.name, id, info.state)) << info.name << " state " << info.state;
            ++records;
        }
        ++walks;
        for (uint32_t i = 1; i <= kContexts; i += 7) {
            tarn_if_context_info_t ic;
            if (tarn_if_get_context_info(1000 + i, &ic)) {
                ASSERT_TRUE(whole(ic.context_name, i, -1)) << ic.context_name;
                // The name was read in one version; its id in maybe another.
                ASSERT_TRUE(ic.context_id == 0 || ic.context_id == i);
            }
            char name[TARN_NAME_SIZE];
            tarn_get_context_name(i, name);
            ASSERT_TRUE(strcmp(name, "<unknown>") == 0 || whole(name, i, -1)) << name;
            ++lookups;
        }
    }
    int status = 0;
    ASSERT_EQ(writer, waitpid(writer, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(walks, 10);
    EXPECT_GT(records, 10 * kContexts / 2);
    printf("%ld walks, %ld context records, %ld lookups while the writer reloaded\n", walks,
           records, lookups);
    EXPECT_TRUE(tarntest::captured().empty());
}

}  // namespace
