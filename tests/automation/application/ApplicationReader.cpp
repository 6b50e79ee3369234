// An application's use of the reader and writer interfaces, written against
// the public headers alone.
#include "ApplicationReader.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace application {
namespace {

class SensorReader : public IVariantReadStub {
public:
    explicit SensorReader(SensorState& state) : m_state(state) {}

    bool getType(char* buffer, unsigned long& length) override {
        if (!m_state.typeAnswers)
            return false;
        const size_t size = m_state.typeName.size();
        if (buffer == nullptr) {
            length = size + 1;
            return true;
        }
        if (length < size + 1)
            return false;
        std::memcpy(buffer, m_state.typeName.c_str(), m_state.typeWritesNul ? size + 1 : size);
        return true;
    }
    bool getValue(unsigned char& value) override { return answer(value, "unsigned char"); }
    bool getValue(char& value) override { return answer(value, "char"); }
    bool getValue(unsigned short& value) override { return answer(value, "unsigned short"); }
    bool getValue(short& value) override { return answer(value, "short"); }
    bool getValue(unsigned int& value) override { return answer(value, "unsigned int"); }
    bool getValue(int& value) override { return answer(value, "int"); }
    bool getValue(unsigned long& value) override { return answer(value, "unsigned long"); }
    bool getValue(long& value) override { return answer(value, "long"); }
    bool getValue(unsigned long long& value) override { return answer(value, "unsigned long long"); }
    bool getValue(long long& value) override { return answer(value, "long long"); }
    bool getValue(float& value) override { return answer(value, "float"); }
    bool getValue(double& value) override { return answer(value, "double"); }
    bool getValue(bool& value) override { return answer(value, "bool"); }
    bool getValue(char* buffer, unsigned long& length) override {
        m_state.calls.push_back("text");
        const size_t size = m_state.text.size();
        if (buffer != nullptr && length < size + 1)
            return false;
        if (buffer != nullptr)
            std::memcpy(buffer, m_state.text.c_str(), size + 1);
        length = size + 1;
        return true;
    }
    void onFinalRelease() override { m_state.lifecycle.push_back("final release"); }

protected:
    ~SensorReader() override { m_state.lifecycle.push_back("destroyed"); }

private:
    template <class T>
    bool answer(T& value, const char* type) {
        m_state.calls.push_back(type);
        value = static_cast<T>(m_state.number);
        return true;
    }

    SensorState& m_state;
};

// The slot a pointer to a virtual member names. The Itanium C++ ABI keeps
// 1 + the slot's byte offset in the pointer word; its Arm variant (aarch64)
// keeps the plain offset there and marks "virtual" in the adjustment's low bit.
template <class Member>
long slotOf(Member member) {
    struct {
        uintptr_t pointer;
        ptrdiff_t adjustment;
    } word;
    static_assert(sizeof(Member) == sizeof word, "two-word member function pointers");
    std::memcpy(&word, &member, sizeof word);
#if defined(__aarch64__) || defined(__arm__)
    return (word.adjustment & 1) ? static_cast<long>(word.pointer / sizeof(void*)) : -1;
#else
    return (word.pointer & 1) ? static_cast<long>((word.pointer - 1) / sizeof(void*)) : -1;
#endif
}

template <class... T>
std::vector<long> getterSlots() {
    return {slotOf(static_cast<bool (IVariantRead::*)(T&)>(&IVariantRead::getValue))...};
}
template <class... T>
std::vector<long> setterSlots() {
    return {slotOf(static_cast<bool (IVariantWrite::*)(T, bool)>(&IVariantWrite::setValue))...};
}

} // namespace

IVariantRead* makeSensorReader(SensorState& state) {
    return new SensorReader(state);
}

LibraryReading readThroughSlots(IVariantRead* reader) {
    LibraryReading reading;
    char buffer[64] = "";
    unsigned long length = sizeof buffer;
    if (reader->getType(buffer, length))
        reading.typeName = buffer;
    reader->getValue(reading.asInt);
    length = sizeof buffer;
    if (reader->getValue(buffer, length))
        reading.text = buffer;
    void* found = nullptr;
    reading.refusedWriter = !reader->queryInterface("IVariantWrite", &found);
    if (reader->queryInterface("IBase", &found)) {
        IBase* base = static_cast<IBase*>(found);
        reading.countAfterQuery = base->addRef();
        base->releaseRef();
        base->releaseRef();
    }
    return reading;
}

bool writeThroughSlots(IVariantWrite* writer, int value, const char* typeName) {
    const bool stored = writer->setValue(value, true);
    return writer->setType(typeName) && stored;
}

std::vector<long> readerSlots() {
    std::vector<long> slots = {slotOf(&IVariantRead::queryInterface), slotOf(&IVariantRead::addRef),
                               slotOf(&IVariantRead::releaseRef), slotOf(&IVariantRead::getType)};
    for (long slot : getterSlots<unsigned char, char, unsigned short, short, unsigned int, int, unsigned long, long,
                                 unsigned long long, long long, float, double>())
        slots.push_back(slot);
    slots.push_back(slotOf(static_cast<bool (IVariantRead::*)(char*, unsigned long&)>(&IVariantRead::getValue)));
    slots.push_back(getterSlots<bool>()[0]);
    slots.push_back(slotOf(&IVariantReadStub::onFinalRelease));
    return slots;
}

std::vector<long> writerSlots() {
    std::vector<long> slots = {slotOf(&IVariantWrite::queryInterface), slotOf(&IVariantWrite::addRef),
                               slotOf(&IVariantWrite::releaseRef), slotOf(&IVariantWrite::setType)};
    for (long slot : setterSlots<unsigned char, char, unsigned short, short, unsigned int, int, unsigned long, long,
                                 unsigned long long, long long, float, double, const char*, bool>())
        slots.push_back(slot);
    slots.push_back(slotOf(&IVariantWriteStub::onFinalRelease));
    return slots;
}

} // namespace application
