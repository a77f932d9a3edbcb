// CFrameInfoReduceObject: the information of one frame: its time stamp, its
// number in the file and the preset it was taken with.
//
// Immutable after construction; see IReduceObject.
#pragma once

#include <zeb/Api.h>
#include <zeb/CDateTime.h>
#include <zeb/reduce/IReduceObject.h>

namespace zeb {
namespace reduce {

class ZEB_API CFrameInfoReduceObject : public IReduceObject {
 public:
  // The identifier of this kind.
  static const SGuid kId;

  CFrameInfoReduceObject(const CDateTime& timestamp, unsigned int frame, unsigned char preset);
  ~CFrameInfoReduceObject() override;

  SGuid id() const override;
  // The time the frame was taken (empty when unknown).
  CDateTime timestamp() const { return m_timestamp; }
  unsigned int frame() const { return m_frame; }
  unsigned char preset() const { return m_preset; }

 private:
  CDateTime m_timestamp;
  unsigned int m_frame;
  unsigned char m_preset;
};

}  // namespace reduce
}  // namespace zeb
