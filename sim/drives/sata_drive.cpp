// The simulated SATA drive: a SCSI/ATA translation layer in front of the ATA device model.
// It takes ATA PASS-THROUGH(16) and (12) command blocks, checks that the block agrees with
// itself and with the host's buffer, runs the ATA command and turns the device's completion
// registers into SCSI status and fixed-format sense; other SCSI commands go to the layer's
// translations (sat_scsi).
#include "sata_drive.h"

#include "ata_device.h"
#include "byte_order.h"
#include "sat_scsi.h"

namespace kelsim {
namespace {

constexpr uint8_t kAtaPassThrough16 = 0x85, kAtaPassThrough12 = 0xA1;
constexpr uint8_t kAscqAtaPassThroughInformation = 0x1D; // with ASC 0x00
constexpr uint8_t kStatusDeviceFault = 0x20;

// The protocols this layer carries out (byte 1 bits 4..1).
enum Protocol : uint8_t {
    kNonData = 3,
    kPioDataIn = 4,
    kPioDataOut = 5,
    kDma = 6,
    kUdmaDataIn = 10,
    kUdmaDataOut = 11,
};

// Where the T_LENGTH field says the transfer length is (byte 2 bits 1..0).
enum TransferLengthField : uint8_t { kNoTransfer = 0, kInFeatures = 1, kInCount = 2 };

// One pass-through command block, decoded.
struct PassThrough {
    uint8_t protocol = 0;
    bool extend = false;
    bool checkCondition = false; // CK_COND: return the registers even on success
    bool toHost = false;         // T_DIR
    bool lengthInBlocks = false; // BYT_BLOK
    uint8_t lengthField = kNoTransfer;
    AtaCommandBlock registers;
    // Byte positions of the length-carrying fields, for the sense field pointer.
    uint16_t featuresByte = 0, countByte = 0;
};

// Bytes 1 and 2 are the same in both block sizes.
void decodeProtocolAndFlags(const uint8_t *cdb, PassThrough *pass) {
    pass->protocol = (cdb[1] >> 1) & 0x0F;
    pass->checkCondition = (cdb[2] & 0x20) != 0;
    pass->toHost = (cdb[2] & 0x08) != 0;
    pass->lengthInBlocks = (cdb[2] & 0x04) != 0;
    pass->lengthField = cdb[2] & 0x03;
}

PassThrough decode16(const uint8_t *cdb) {
    PassThrough pass;
    decodeProtocolAndFlags(cdb, &pass);
    pass.extend = (cdb[1] & 0x01) != 0;
    AtaCommandBlock &registers = pass.registers;
    // Without EXTEND only the current registers are written: the previous halves stay zero.
    auto previous = [&](int byte) -> uint64_t { return pass.extend ? cdb[byte] : 0; };
    registers.features = static_cast<uint16_t>(previous(3) << 8 | cdb[4]);
    registers.count = static_cast<uint16_t>(previous(5) << 8 | cdb[6]);
    registers.lba = uint64_t{cdb[8]} | uint64_t{cdb[10]} << 8 | uint64_t{cdb[12]} << 16 | previous(7) << 24 |
                    previous(9) << 32 | previous(11) << 40;
    registers.device = cdb[13];
    registers.command = cdb[14];
    pass.featuresByte = pass.extend ? 3 : 4;
    pass.countByte = pass.extend ? 5 : 6;
    return pass;
}

PassThrough decode12(const uint8_t *cdb) {
    PassThrough pass;
    decodeProtocolAndFlags(cdb, &pass);
    AtaCommandBlock &registers = pass.registers;
    registers.features = cdb[3];
    registers.count = cdb[4];
    registers.lba = getLe(&cdb[5], 3);
    registers.device = cdb[8];
    registers.command = cdb[9];
    pass.featuresByte = 3;
    pass.countByte = 4;
    return pass;
}

// Byte 1 bits 4..1 and byte 2's bits, for the field pointer of a refusal.
constexpr uint16_t kProtocolByte = 1, kFlagsByte = 2;
constexpr int kProtocolBit = 4, kDirectionBit = 3, kBlocksBit = 2, kLengthFieldBit = 1;

class SataDrive : public ScsiTarget {
  public:
    SataDrive(const DriveIdentity &identity, Medium &medium, DriveSettings &settings)
        : device_(identity, medium, settings) {}

    ScsiResult execute(const ScsiCommand &command) override {
        if (command.cdb == nullptr || command.cdbLength == 0) {
            return checkCondition(sense::kIllegalRequest, sense::kAscInvalidOpcode, 0);
        }
        PassThrough pass;
        switch (command.cdb[0]) {
        case kAtaPassThrough16:
            if (command.cdbLength != 16) {
                return invalidFieldInCdb(0);
            }
            pass = decode16(command.cdb);
            break;
        case kAtaPassThrough12:
            if (command.cdbLength != 12) {
                return invalidFieldInCdb(0);
            }
            pass = decode12(command.cdb);
            break;
        default:
            return scsi_.execute(command);
        }
        AtaDataPhase phase = AtaDataPhase::None;
        if (ScsiResult refusal; !checkAgreement(pass, command, &phase, &refusal)) {
            return refusal;
        }
        const bool moves = phase != AtaDataPhase::None;
        const AtaCompletion completion =
            device_.execute(pass.registers, phase, moves ? command.data : nullptr, moves ? command.dataLength : 0);
        return translateCompletion(pass, completion);
    }

  private:
    // A block that contradicts itself or the host's buffer never reaches the device.
    static bool checkAgreement(const PassThrough &pass, const ScsiCommand &command, AtaDataPhase *phase,
                               ScsiResult *refusal) {
        switch (pass.protocol) {
        case kNonData:
            *phase = AtaDataPhase::None;
            break;
        case kPioDataIn:
        case kUdmaDataIn:
            *phase = AtaDataPhase::In;
            break;
        case kPioDataOut:
        case kUdmaDataOut:
            *phase = AtaDataPhase::Out;
            break;
        case kDma:
            *phase = pass.toHost ? AtaDataPhase::In : AtaDataPhase::Out;
            break;
        default:
            *refusal = invalidFieldInCdb(kProtocolByte, kProtocolBit);
            return false;
        }
        if (*phase == AtaDataPhase::None) {
            if (command.direction != DataDirection::None) {
                *refusal = invalidFieldInCdb(kProtocolByte, kProtocolBit);
                return false;
            }
            if (pass.lengthField != kNoTransfer) {
                *refusal = invalidFieldInCdb(kFlagsByte, kLengthFieldBit);
                return false;
            }
            return true;
        }
        const bool dataIn = *phase == AtaDataPhase::In;
        if (pass.toHost != dataIn) {
            *refusal = invalidFieldInCdb(kFlagsByte, kDirectionBit);
            return false;
        }
        if (command.direction != (dataIn ? DataDirection::FromDevice : DataDirection::ToDevice)) {
            *refusal = invalidFieldInCdb(kProtocolByte, kProtocolBit);
            return false;
        }
        uint32_t units = 0;
        uint16_t lengthByte = 0;
        switch (pass.lengthField) {
        case kInFeatures:
            units = pass.registers.features;
            lengthByte = pass.featuresByte;
            break;
        case kInCount:
            units = pass.registers.count;
            lengthByte = pass.countByte;
            break;
        default: // no transfer for a data protocol, or a length this block has no field for
            *refusal = invalidFieldInCdb(kFlagsByte, kLengthFieldBit);
            return false;
        }
        // A legacy WRITE LONG's block is the long sector: the data and its ECC bytes.
        const uint64_t unit =
            pass.registers.command == ata::kCommandWriteLong ? kBlockSize + ata::kLongSectorEccBytes : kBlockSize;
        const uint64_t bytes = pass.lengthInBlocks ? uint64_t{units} * unit : units;
        if (bytes == 0 || bytes != command.dataLength || command.data == nullptr) {
            *refusal = invalidFieldInCdb(lengthByte);
            return false;
        }
        // The host counted its transfer in 512-byte blocks: a byte count must come out whole.
        if (command.blockTransferUnit && bytes % kBlockSize != 0) {
            *refusal = invalidFieldInCdb(kFlagsByte, kBlocksBit);
            return false;
        }
        return true;
    }

    static ScsiResult translateCompletion(const PassThrough &pass, const AtaCompletion &completion) {
        ScsiResult result;
        if (completion.timedOut) {
            result.timedOut = true;
            return result;
        }
        if (completion.failed()) {
            result = senseForError(completion.status, completion.error);
            putRegisters(pass, completion, &result);
        } else if (pass.checkCondition) {
            result = checkCondition(sense::kRecoveredError, 0x00, kAscqAtaPassThroughInformation);
            putRegisters(pass, completion, &result);
        }
        result.transferred = completion.transferred;
        return result;
    }

    static ScsiResult senseForError(uint8_t status, uint8_t error) {
        if (status & kStatusDeviceFault) {
            return checkCondition(sense::kHardwareError, 0x44, 0x00); // internal target failure
        }
        if (error & ata::kErrorUncorrectable) {
            return checkCondition(sense::kMediumError, sense::kAscUnrecoveredReadError, 0);
        }
        if (error & ata::kErrorIdNotFound) {
            return checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
        }
        if (error & ata::kErrorAddressMarkNotFound) {
            return checkCondition(sense::kMediumError, 0x13, 0x00); // address mark not found for data field
        }
        if (error & ata::kErrorInterfaceCrc) {
            return checkCondition(sense::kAbortedCommand, 0x47, 0x00); // interface CRC error
        }
        return checkCondition(sense::kAbortedCommand, 0x00, 0x00);
    }

    // The completion registers in fixed-format sense: ERROR, STATUS, DEVICE and COUNT 7..0 in
    // the information field, then the EXTEND and "upper bytes not zero" flags and LBA 23..0
    // in the command-specific information.
    static void putRegisters(const PassThrough &pass, const AtaCompletion &completion, ScsiResult *result) {
        auto &sense = result->sense;
        sense[0] |= 0x80; // the information field is valid
        sense[3] = completion.error;
        sense[4] = completion.status;
        sense[5] = completion.device;
        sense[6] = static_cast<uint8_t>(completion.count);
        uint8_t flags = 0;
        if (pass.extend) {
            flags |= 0x80;
            flags |= (completion.count >> 8) != 0 ? 0x40 : 0;
            flags |= (completion.lba >> 24) != 0 ? 0x20 : 0;
        }
        sense[8] = flags;
        putLe(&sense[9], 3, completion.lba);
    }

    AtaDevice device_;
    SatScsiCommands scsi_{device_}; // the standard SCSI commands, translated
};

} // namespace

std::unique_ptr<ScsiTarget> makeSataDrive(const DriveIdentity &identity, Medium &medium, DriveSettings &settings) {
    return std::make_unique<SataDrive>(identity, medium, settings);
}

} // namespace kelsim
