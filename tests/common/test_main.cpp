// Shared main of every test executable: a QCoreApplication so that queued signals and
// translations work, then GoogleTest.
//
// ORVO_TEST_HARDWARE=emulated runs a suite with hardware decoding on (Auto) over the emulated
// engine, ORVO_TEST_HARDWARE=device over the real one: the suites that check the software
// path then check that the hardware path behaves the same (the DCT formats included).
#include "orvo/decoder_preferences.h"
#include "orvo/hardware_testing.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const QByteArray hardware = qgetenv("ORVO_TEST_HARDWARE");
    if (hardware == "emulated" || hardware == "device") {
        orvo::DecoderPreferences::instance()->setHardwareDecoding(orvo::HardwareDecoding::Auto);
        orvo::DecoderPreferences::instance()->setApproximateHardwareDecoding(true);
        orvo::setEmulatedHardwareForTesting(hardware == "emulated");
    }
    return RUN_ALL_TESTS();
}
