// The ALSA output through real ALSA: "null" for what needs no data, and the
// file plug-in ("file:'<path>',raw") to read back exactly what was played.
#include "qv_alsa_output_device.h"

#include "../common/print_capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string temp_path(const char* tag)
{
    return std::string(::testing::TempDir()) + "qv_alsa_" + tag + "_" + std::to_string(getpid()) + ".raw";
}

std::vector<uint8_t> read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<uint8_t> pattern(size_t bytes, uint8_t seed)
{
    std::vector<uint8_t> v(bytes);
    for (size_t i = 0; i < bytes; ++i)
        v[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
    return v;
}

struct format_mismatch {
    const char* name;
    uint32_t rate;
    uint16_t bits;
    uint16_t channels;
};

std::string mismatch_name(const ::testing::TestParamInfo<format_mismatch>& info)
{
    return info.param.name;
}

class AlsaRefusesSound : public ::testing::TestWithParam<format_mismatch> {};

TEST_P(AlsaRefusesSound, OtherFormatIsNotWrittenNorCounted)
{
    const format_mismatch& m = GetParam();
    qv_alsa_output_device dev;
    ASSERT_TRUE(dev.open_device("null", 2)); // device: 48 kHz, 16 bits, 4 channels
    QVSDK::QVSound sound;
    ASSERT_TRUE(sound.init(48000 * 4 * 4, 0, m.rate, m.bits, m.channels));
    sound.silense(4800);
    EXPECT_FALSE(dev.write(sound));
    EXPECT_EQ(dev.get_device_time(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Formats, AlsaRefusesSound,
                         ::testing::Values(format_mismatch{"channels", 48000, 16, 2},
                                           format_mismatch{"rate", 44100, 16, 4},
                                           format_mismatch{"bits", 48000, 32, 4}),
                         mismatch_name);

// The device time follows what was handed over in bytes, also what the card
// could not take as whole frames, and a stop resets it.
TEST(AlsaDevice, DeviceTimeCountsBytesHandedOver)
{
    qv_alsa_output_device dev;
    ASSERT_TRUE(dev.open_device("null", 1)); // 4 bytes a frame, 192000 bytes a second
    const std::vector<uint8_t> second(192000, 0);
    ASSERT_TRUE(dev.write(second.data(), second.size()));
    EXPECT_EQ(dev.get_device_time(), 1000u);
    ASSERT_TRUE(dev.write(second.data(), 3)); // less than a frame: nothing played, still counted
    ASSERT_TRUE(dev.write(second.data(), 192 * 5 - 3));
    EXPECT_EQ(dev.get_device_time(), 1005u);
    dev.stop_device();
    EXPECT_EQ(dev.get_device_time(), 0u);
}

TEST(AlsaDevice, PlaysAgainAfterStopAndRestart)
{
    const std::string path = temp_path("restart");
    std::remove(path.c_str());
    {
        qv_alsa_output_device dev;
        ASSERT_TRUE(dev.open_device("file:'" + path + "',raw", 1));
        const std::vector<uint8_t> a = pattern(4 * 100, 3);
        ASSERT_TRUE(dev.start_device());
        ASSERT_TRUE(dev.write(a.data(), a.size()));
        dev.stop_device();
        print_capture out;
        ASSERT_TRUE(dev.write(a.data(), a.size()));
        ASSERT_TRUE(dev.start_device());
        EXPECT_EQ(out.count_prefix("qvjtrenderer: qv_alsa_output_device::write"), 0u);
        EXPECT_EQ(out.count_prefix("qv_alsa_output_device: snd_pcm_start error"), 0u);
        EXPECT_EQ(dev.get_device_time(), 100u * 1000u / 48000u);
    }
    EXPECT_EQ(read_file(path).size(), 2u * 4u * 100u);
    std::remove(path.c_str());
}

} // namespace
