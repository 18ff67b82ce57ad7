// XcpLinkRig: the UPS link wired as the daemon wires it, but to a scripted
// serial port. A fixture fills `config` (or leaves an empty map naming
// "/dev/ttyS9"), calls wire(), then drives `link` and checks `port` and `ctrl`.
#pragma once

#include <memory>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/ScriptedSerialPort.h"
#include "xcp/UpsDataBlock.h"
#include "xcp/XcpIFTh.h"
#include "xcp/XcpTh.h"

class XcpLinkRig {
public:
    void wire()
    {
        if (!config) {
            config.reset(new FileMap());
            config->setConf("DeviceName", "/dev/ttyS9");
        }
        configPtr = config.get();
        ups.reset(new UpsDataBlock(&clock));
        upsPtr = ups.get();
        ctrl.reset(new StCTrl(&clock, config.get()));
        events.reset(new XcpTh(2, ctrl.get()));
        link.reset(new XcpIFTh(3, ctrl.get(), &port, &configPtr, &upsPtr, events.get(), &port.sleeper()));
    }

    ManualClock clock{1800000000};
    ScriptedSerialPort port;
    std::unique_ptr<FileMap> config;
    FileMap* configPtr = nullptr;
    std::unique_ptr<UpsDataBlock> ups;
    UpsDataBlock* upsPtr = nullptr;
    std::unique_ptr<StCTrl> ctrl;
    std::unique_ptr<XcpTh> events;
    std::unique_ptr<XcpIFTh> link;
};
