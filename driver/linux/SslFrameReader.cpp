#include "driver/linux/SslFrameReader.h"

#include "driver/linux/SslSocketProtocol.h"

namespace NORVI {

bool CSslFrameReader::Feed(const uint8_t* bytes, size_t length, const Deliver& deliver,
                           std::string& error) {
    m_Input.insert(m_Input.end(), bytes, bytes + length);
    size_t position = 0;
    while (m_Input.size() - position >= kSslFramePrefix) {
        const uint32_t frameLength = FrameLength(m_Input.data() + position);
        if (frameLength < kSslHeaderSize || frameLength > kSslRequestMax) {
            error = "SSL socket: a request of " + std::to_string(frameLength) +
                    " bytes is outside 80 to " + std::to_string(kSslRequestMax);
            m_Input.clear();
            return false;
        }
        if (m_Input.size() - position - kSslFramePrefix < frameLength) {
            break;
        }
        deliver(m_Input.data() + position + kSslFramePrefix, frameLength);
        position += kSslFramePrefix + frameLength;
    }
    m_Input.erase(m_Input.begin(), m_Input.begin() + static_cast<long>(position));
    return true;
}

}  // namespace NORVI
