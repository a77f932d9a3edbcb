#include "tools/zebtrksvc/RequestReader.h"

#include <stdexcept>

namespace zebtrksvc {
namespace {
using EType = TinyMsgPackObject::EType;
}  // namespace

void Request::Clear() {
  for (RequestField* field : {&act, &ord, &ver, &fileId, &index, &frameNumber, &queueId, &name}) {
    field->kind = RequestField::Kind::Absent;
    field->number = 0;
    field->text.clear();
  }
  params = Params::Absent;
}

void RequestReader::ReadItem() {
  if (!m_reader.Read()) throw std::runtime_error("Failed to read.");
}

void RequestReader::ReadKey() {
  ReadItem();
  if (m_reader.type() != EType::String) throw std::runtime_error("Expected string.");
  m_key = m_reader.stringValue();
}

void RequestReader::SkipContents() {
  const uint32_t count = m_reader.count();
  switch (m_reader.type()) {
    case EType::Map:
      for (uint32_t i = 0; i < count; ++i) {
        m_reader.Skip();
        m_reader.Skip();
      }
      break;
    case EType::Array:
      for (uint32_t i = 0; i < count; ++i) m_reader.Skip();
      break;
    case EType::Blob: {
      // In pieces: a blob's announced length is not allocated.
      unsigned char discard[4096];
      uint32_t left = count;
      while (left > 0) {
        const uint32_t n = left < sizeof(discard) ? left : static_cast<uint32_t>(sizeof(discard));
        if (!m_reader.ReadBytes(discard, n)) throw std::runtime_error("Failed to read.");
        left -= n;
      }
      break;
    }
    default:
      break;
  }
}

void RequestReader::ReadField(RequestField& field) {
  if (field.kind != RequestField::Kind::Absent) {
    m_reader.Skip();  // the first value of a repeated key counts
    return;
  }
  ReadItem();
  switch (m_reader.type()) {
    case EType::PosInteger:
      field.kind = RequestField::Kind::Unsigned;
      field.number = m_reader.posIntegerValue();
      break;
    case EType::String:
      field.kind = RequestField::Kind::Text;
      field.text = m_reader.stringValue();
      break;
    default:
      field.kind = RequestField::Kind::Other;
      SkipContents();
      break;
  }
}

void RequestReader::ReadParams(Request& request) {
  if (request.params != Request::Params::Absent) {
    m_reader.Skip();
    return;
  }
  ReadItem();
  if (m_reader.type() != EType::Map) {
    request.params = Request::Params::NotAMap;
    SkipContents();
    return;
  }
  request.params = Request::Params::Map;
  const uint32_t entries = m_reader.count();
  for (uint32_t i = 0; i < entries; ++i) {
    ReadKey();
    if (m_key == "fileId") {
      ReadField(request.fileId);
    } else if (m_key == "index") {
      ReadField(request.index);
    } else if (m_key == "frameNumber") {
      ReadField(request.frameNumber);
    } else if (m_key == "queueId") {
      ReadField(request.queueId);
    } else if (m_key == "name") {
      ReadField(request.name);
    } else {
      m_reader.Skip();
    }
  }
}

bool RequestReader::Read(Request& request) {
  request.Clear();
  try {
    ReadItem();
    if (m_reader.type() != EType::Map) return false;
    const uint32_t entries = m_reader.count();
    for (uint32_t i = 0; i < entries; ++i) {
      ReadKey();
      if (m_key == "act") {
        ReadField(request.act);
      } else if (m_key == "ord") {
        ReadField(request.ord);
      } else if (m_key == "ver") {
        ReadField(request.ver);
      } else if (m_key == "params") {
        ReadParams(request);
      } else {
        m_reader.Skip();
      }
    }
    return true;
  } catch (const std::exception&) {
    // Undecodable (or an allocation the announced sizes asked for failed):
    // the stream is out of step with item boundaries.
    return false;
  }
}

}  // namespace zebtrksvc
