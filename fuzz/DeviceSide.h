#ifndef FUZZ_DEVICESIDE_H
#define FUZZ_DEVICESIDE_H

#include <string>

#include "engine/KyTferClient.h"
#include "fuzz/Fuzz.h"
#include "fuzz/FuzzDevice.h"
#include "fuzz/RecordCheck.h"

/// What a device does by itself, as the input says: it answers, announces sizes, lets transfers go on,
/// delivers files, and decides how its proxy's next calls go.
class DeviceSide {
public:
    DeviceSide(fuzz::Input& input, FuzzDevice& device, KyTferClient& engine, RecordCheck& check)
        : m_input(input), m_device(device), m_engine(engine), m_check(check) {}

    /// Takes one of the steps 7 to 15, modulo 16; others do nothing.
    void Step(unsigned step);

    /// A file's name, good ones and bad ones.
    static std::string Name(fuzz::Input& input);

private:
    void SetTransfer();
    void FailPoints();
    void Land(const std::string& path);
    void ChangeText(int point, const std::string& text);
    void ChangeNumber(int point, unsigned number);

    fuzz::Input& m_input;
    FuzzDevice& m_device;
    KyTferClient& m_engine;
    RecordCheck& m_check;
};

#endif
