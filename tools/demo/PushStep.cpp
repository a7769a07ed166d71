#include "demo/PushStep.h"

#include <string>

#include "demo/Comparison.h"
#include "demo/Text.h"

namespace ky_demo {

bool PushFile(Console& console, CardAndDevice& both, const DeviceFile& file) {
    // Nothing reports how far a push is, so there would be nothing to see of a slow one.
    both.Device().SetLineRate(0);
    Workspace::PutIntoOutbox(file.name);
    console.Heading("Push, and comparison on the device's side");
    const std::string label = "  " + Padded(Printable(file.name), 15) + " ";
    KyTferStatusMsg record = both.Engine().PutFileToDevRequest(Workspace::OutboxDirectory(), file.name);
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS) record = both.Finish();
    if (record.GetStatus() != KyTferStatusMsg::TFER_STATUS_COMPLETE) {
        console.Line(label + "FAILED, see the log: " + Printable(record.GetStatusMsg()));
        return false;
    }
    const Comparison comparison =
        Compare(Workspace::DevicePath(file.name), Workspace::DevicePath(record.GetXferFileName()));
    console.Line(label + Bytes(file.size) + " arrived as " + record.GetXferFileName() + ", " +
                 comparison.text);
    return comparison.equal;
}

}  // namespace ky_demo
