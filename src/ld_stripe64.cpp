// Stripe read and write on a logical drive with 64-bit addresses: "r64" and "w64",
// READ(16)/WRITE(16) sent through the general pass-through call.
#define KEL_MODULE "KelPthCmd"
#include <cstdio>

#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/stripe.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

namespace {

constexpr size_t kAddress64Digits = 16;

// Optional "0x" and up to 16 hex digits: every 64-bit address is accepted.
int readAddress64Argument(char *text, uint64_t *lba) {
    if (!readHexValue64(text, kAddress64Digits, ConvertRules{true, false}, lba)) {
        KelPthErr0022(KEL_HERE, "Address");
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    return 1;
}

// Controller, logical drive and 64-bit address, each shown once it is read.
int readStripe64Arguments(char **argv, PassThroughRequest *request, uint64_t *lba) {
    if (!readLogicalDriveTarget(KEL_HERE, argv[2], argv[3], request)) {
        return 0;
    }
    showControllerNo(request->controllerNo);
    showLogicalDriveNo(request->driveNo);
    if (!readAddress64Argument(argv[4], lba)) {
        return 0;
    }
    showWideLogicalBlockAddress(*lba, 16);
    return 1;
}

} // namespace

// r64 <ControllerNo> <LogicalDriveNo> <Address>
int32_t KelLDOneOneStripeRead264() {
    traceCall("KelLDOneOneStripeRead264");
    char **argv = functbl[kTblStripeRead64].argv;
    PassThroughRequest request{};
    uint64_t lba = 0;
    if (!readStripe64Arguments(argv, &request, &lba)) {
        return 0;
    }

    startStripeCdb(&request, KEL_DIR_IN, kRead16, kStripeCdb16, kStripeBlocks);
    if (!transferStripeHalves(KEL_HERE, &request, kStripeCdb16, lba, StripeCall{KelPasAnyCommand, nullptr})) {
        return 0;
    }
    printf("\n");
    return 1;
}

// w64 <ControllerNo> <LogicalDriveNo> <Address> <DataHDD>
// The DataHDD argument is required but never read: the line always shows 0.
int32_t KelLDOneOneStripeWrite264() {
    traceCall("KelLDOneOneStripeWrite264");
    char **argv = functbl[kTblStripeWrite64].argv;
    PassThroughRequest request{};
    uint64_t lba = 0;
    if (!readStripe64Arguments(argv, &request, &lba)) {
        return 0;
    }
    const int dataHdd = 0;
    showDataHdd(dataHdd);

    // The 16-byte write goes through the general call, which takes its length by address.
    startStripeCdb(&request, KEL_DIR_OUT, kWrite16, kStripeCdb16, kStripeHalfBlocks);
    return transferStripeHalves(KEL_HERE, &request, kStripeCdb16, lba, StripeCall{KelPasAnyCommand, nullptr});
}
