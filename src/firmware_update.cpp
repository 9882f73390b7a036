// F: firmware download. The image file (cut at 0xC0000 bytes) goes with WRITE BUFFER
// mode 7 in pieces of at most 64 KiB to every SAS drive whose product identification
// begins "MBA" or "MBB", on every controller; the first failure stops everything.
#define KEL_MODULE "KelPthCmd"
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelctl.h"
#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/diagnostics.h"
#include "kelpth/dump.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

namespace {

constexpr uint32_t kImageSize = 0xC0000;
constexpr uint32_t kPieceSize = 0x10000;
constexpr uint8_t kWriteBuffer = 0x3B;
constexpr uint8_t kDownloadSaveActivate = 0x07; // download microcode with offsets, save and activate

// The drives this image is for: product identification "MBA..." or "MBB...".
bool isFirmwareTarget(const char *product) {
    return product[0] == 'M' && product[1] == 'B' && (product[2] == 'A' || product[2] == 'B');
}

void putBigEndian24(uint8_t *bytes, uint32_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 16);
    bytes[1] = static_cast<uint8_t>(value >> 8);
    bytes[2] = static_cast<uint8_t>(value);
}

// The image in pieces to the drive the request names; the CDB of the first piece is shown.
int downloadImage(PassThroughRequest *request, const uint8_t *image, uint32_t imageSize, SenseArea *sense) {
    uint32_t sent = 0;
    for (uint32_t piece = 0; sent < imageSize; piece++) {
        const uint32_t length = imageSize - sent <= kPieceSize ? imageSize - sent : kPieceSize;
        uint8_t *allocated = nullptr;
        if (MakeAllocData(&allocated, length) == 0) {
            return 0;
        }
        DataBuffer data(allocated);
        putBigEndian24(&request->cdb[5], sent);
        putBigEndian24(&request->cdb[8], length);
        memcpy(data.get(), image + sent, length);
        sent += length;
        if (piece == 0) {
            showCdb(*request);
        }
        if (sendDataOut(KEL_HERE, KelPasWriteBuffer, request, data.get(), length, sense) == 0) {
            return 0;
        }
    }
    return 1;
}

// What the download to each drive needs.
struct Download {
    const uint8_t *image;
    uint32_t imageSize;
    PassThroughRequest request;
    SenseArea sense;
    char vendor[9];
    char product[17];
    char revision[5];
};

// One drive: a drive this image is for gets its identity shown and the image.
int downloadToDrive(int controllerNo, int slot, void *context) {
    Download &download = *static_cast<Download *>(context);
    if (GetInquiry(controllerNo, slot, download.vendor, download.product, download.revision, 0) != 1 ||
        !isFirmwareTarget(download.product)) {
        return 1;
    }
    const char *revision = download.revision;
    showControllerNo(controllerNo);
    showPhysicalDriveNo(slot);
    printf("Vendor ID:%s\n", download.vendor);
    printf("Product ID:%s\n", download.product);
    printf("Product Rev:%c%c%c%c\n\n", revision[0], revision[1], revision[2], revision[3]);
    traceLine("## Vendor ID:%s", download.vendor);
    traceLine("## Product ID:%s", download.product);
    traceLine("## Product Rev:%c%c%c%c", revision[0], revision[1], revision[2], revision[3]);

    PassThroughRequest &request = download.request;
    request.targetKind = KEL_TARGET_PHYSICAL;
    request.controllerNo = static_cast<uint8_t>(controllerNo);
    request.driveNo = static_cast<uint8_t>(slot);
    request.direction = KEL_DIR_OUT;
    request.cdbLength = 12;
    request.cdb[0] = kWrapDataOut;
    request.cdb[1] = static_cast<uint8_t>(slot);
    request.cdb[2] = kWriteBuffer;
    request.cdb[3] = kDownloadSaveActivate;
    request.cdb[4] = 0x00; // buffer ID
    return downloadImage(&request, download.image, download.imageSize, &download.sense);
}

} // namespace

int32_t KelFirmwareUpdate() {
    traceCall("KelFirmwareUpdate");
    char **argv = functbl[kTblFirmware].argv;
    Download download{}; // request, sense area and INQUIRY buffers cleared

    char resolved[PATH_MAX] = {};
    if (realpath(argv[2], resolved) == nullptr) {
        KelPthErr0004(KEL_HERE, "realpath", static_cast<uint32_t>(errno));
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    FILE *file = fopen(resolved, "rb");
    if (file == nullptr) {
        KelPthErr0008(KEL_HERE, errno);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    DataBuffer image(static_cast<uint8_t *>(calloc(kImageSize, 1)));
    if (image == nullptr) {
        KelPthErr0007(KEL_HERE, errno, "Failed in PassThrough");
        KelPthErr0002(KEL_HERE);
        fclose(file);
        return 0;
    }
    // A longer file is cut at the image size.
    download.imageSize = static_cast<uint32_t>(fread(image.get(), 1, kImageSize, file));
    fclose(file);
    download.image = image.get();

    // The first failure stops the download everywhere.
    return walkSasDrives("KelFirmwareUpdate", downloadToDrive, &download);
}
