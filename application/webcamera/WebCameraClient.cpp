// A connection of the HTTP camera service.
#include "WebCameraClient.h"

#include <cstdlib>
#include <new>

WebCameraClient::WebCameraClient() : m_processor(*this, *this) {}

int WebCameraClient::init()
{
    m_nBufferSize = 2048;
    char* pBuffer = static_cast<char*>(malloc(static_cast<size_t>(m_nBufferSize)));
    if (nullptr == pBuffer) {
        return 1;
    }
    m_buffer = SafePointer_C<char>(pBuffer);
    return (nullptr == m_buffer.get()) ? 1 : 0;
}

int WebCameraClient::start()
{
    return 0;
}

int WebCameraClient::stop()
{
    m_processor.stopResponders();
    return 0;
}

int WebCameraClient::uninit()
{
    return 0;
}

int WebCameraClient::onRead(EPollEvent&)
{
    if (!m_socket.isValid()) {
        return 1;
    }
    int nRead = 0;
    if (0 != m_socket.read(m_buffer.get(), m_nBufferSize, nRead)) {
        return 1;
    }
    if (0 == nRead) {
        return 0; // the reactor looks once too often; only bytes are a chunk, to be routed again
    }
    try {
        return m_processor.parse(m_buffer.get(), nRead);
    } catch (const std::bad_alloc&) {
        return 1; // e.g. for a long path: this connection ends, the service goes on
    }
}

int WebCameraClient::write(const void* pData, int nLength)
{
    int nWritten = 0;
    return (0 == m_socket.writeTimeOut(pData, nLength, nWritten, nullptr, Time(5, 0))) ? 0 : 1;
}
