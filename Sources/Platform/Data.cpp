#include "Data.h"

#include "Error.h"
#include "FileManager.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace velvox {

VX_DEFINE_CLASS(Data, Object)

Ref<Data> Data::create(const void* bytes, size_t length)
{
    auto* copy = static_cast<uint8_t*>(malloc(length ? length : 1));
    if (!copy)
        throw std::bad_alloc();
    if (length)
        memcpy(copy, bytes, length);
    return adoptRef(*new Data(copy, length));
}

Ref<Data> Data::adoptMallocedBytes(void* bytes, size_t length)
{
    return adoptRef(*new Data(static_cast<uint8_t*>(bytes), length));
}

Data::~Data()
{
    free(m_bytes);
}

RefPtr<Data> Data::createWithContentsOfFile(const std::string& path, RefPtr<Error>* error)
{
    int fd = FileManager::openFileForReading(path, error);
    if (fd < 0)
        return nullptr;
    std::string contents;
    char buffer[65536];
    while (true) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            int code = errno;
            close(fd);
            if (error)
                *error = posixError(code, path);
            return nullptr;
        }
        if (!n)
            break;
        contents.append(buffer, n);
    }
    close(fd);
    return create(contents.data(), contents.size());
}

bool Data::writeToFile(const std::string& path, RefPtr<Error>* error) const
{
    return FileManager::writeFileAtomically(path, view(), error);
}

Ref<String> Data::description() const
{
    std::string text = format("{length = %zu, bytes = 0x", m_length);
    static const char digits[] = "0123456789abcdef";
    size_t shown = m_length > 32 ? 32 : m_length;
    for (size_t i = 0; i < shown; ++i) {
        text.push_back(digits[m_bytes[i] >> 4]);
        text.push_back(digits[m_bytes[i] & 15]);
    }
    if (shown < m_length)
        text += "...";
    text += "}";
    return String::create(text);
}

bool Data::isEqual(const Object* other) const
{
    auto* data = dynamicDowncast<Data>(other);
    return data && data->view() == view();
}

size_t Data::hash() const
{
    return String::hashBytes(reinterpret_cast<const char*>(m_bytes), m_length > 80 ? 80 : m_length) ^ m_length;
}

} // namespace velvox
