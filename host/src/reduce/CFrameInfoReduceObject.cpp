// CFrameInfoReduceObject: a frame's time stamp, number and preset.
#include <zeb/reduce/CFrameInfoReduceObject.h>

namespace zeb {
namespace reduce {

// Fixed for all time: files and hosts identify frame information by it.
const SGuid CFrameInfoReduceObject::kId = {
    0x5a2f61c4, 0x3b1e, 0x4d07, {0x9c, 0x52, 0x1f, 0x8e, 0x60, 0x2a, 0xd3, 0x11}};

CFrameInfoReduceObject::CFrameInfoReduceObject(const CDateTime& timestamp, unsigned int frame,
                                               unsigned char preset)
    : m_timestamp(timestamp), m_frame(frame), m_preset(preset) {}

CFrameInfoReduceObject::~CFrameInfoReduceObject() = default;

SGuid CFrameInfoReduceObject::id() const { return kId; }

}  // namespace reduce
}  // namespace zeb
