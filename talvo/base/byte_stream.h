// Numbers and texts in network byte order over a message block.
#pragma once

#include <type_traits>

#include "talvo/base/host_network_convertor.h"
#include "talvo/base/message_block.h"
#include "talvo/base/result.h"
#include "talvo/base/trace.h"
#include "talvo/base/types.h"
#include "talvo/base/with_memory.h"

// Reads from and writes to a block that it does not own. The first failure of each kind (reading, writing) is sticky: later
// operations of that kind change nothing and are traced. A decoder therefore checks the result once, at its end. Reads consume
// the whole chain; writes fill the first block only.
template <class BlockType, class ConvertorType>
class CCmByteStreamT {
public:
    // aBlock is not owned: it must outlive this object.
    explicit CCmByteStreamT(BlockType& aBlock) : m_Block(aBlock) {}

    // The sticky results: CM_OK, or the first failure.
    CmResult GetReadResult() const { return m_ResultRead; }
    CmResult GetWriteResult() const { return m_ResultWrite; }

    // Integers of 8, 16 and 32 bits, big-endian. A failed read leaves the variable unchanged.
    template <class Number>
    CCmByteStreamT& operator>>(Number& aValue) {
        Unsigned<Number> value{};
        Read(&value, sizeof(value));
        if (m_ResultRead == CM_OK)
            aValue = static_cast<Number>(ConvertorType::Convert(value));
        return *this;
    }

    // The other direction.
    template <class Number>
    CCmByteStreamT& operator<<(Number aValue) {
        const Unsigned<Number> value = ConvertorType::Convert(static_cast<Unsigned<Number>>(aValue));
        Write(&value, sizeof(value));
        return *this;
    }

    // Raw bytes. The sticky result; CM_ERROR_PARTIAL_DATA: the block held, or had room for, only a part.
    CmResult Read(void* aDst, CmDword aCount) {
        CmDword dwDone = 0;
        if (m_ResultRead == CM_OK)
            m_ResultRead = m_Block.Read(aDst, aCount, &dwDone, CM_TRUE);
        if (m_ResultRead != CM_OK)
            CM_ERROR_TRACE_THIS("CCmByteStreamT::Read, can't read. m_ResultRead=" << m_ResultRead);
        return m_ResultRead;
    }

    // Likewise.
    CmResult Write(const void* aSrc, CmDword aCount) {
        CmDword dwDone = 0;
        if (m_ResultWrite == CM_OK)
            m_ResultWrite = m_Block.Write(aSrc, aCount, &dwDone);
        if (m_ResultWrite != CM_OK)
            CM_ERROR_TRACE_THIS("CCmByteStreamT::Write, can't write. m_ResultWrite=" << m_ResultWrite);
        return m_ResultWrite;
    }

    // Writes the length in 16 bits, then the bytes without a terminator. Kept on purpose: a longer text is not refused; its
    // length modulo 65,536 is written with that many bytes. A null text counts as empty.
    CmResult WriteString(const char* aStr, CmDword aLen) {
        const CmWord wLen = aStr ? static_cast<CmWord>(aLen) : CmWord{0};
        *this << wLen;
        return wLen > 0 ? Write(aStr, wLen) : m_ResultWrite;
    }

    // aStr (out): a text that WriteString wrote, unchanged unless CM_OK. CM_ERROR_OUT_OF_MEMORY is sticky, too.
    CmResult ReadString(CCmString& aStr) {
        CmWord wLen = 0;
        *this >> wLen;
        CCmString strText;
        if (m_ResultRead == CM_OK && !talvo::WithMemory([&] { strText.resize(wLen); }))
            m_ResultRead = CM_ERROR_OUT_OF_MEMORY;
        if (!strText.empty())
            Read(strText.data(), wLen);
        if (m_ResultRead == CM_OK)
            aStr.swap(strText);
        return m_ResultRead;
    }

private:
    template <class Number>
    struct UnsignedOf {
        static_assert((std::is_integral_v<Number> || std::is_enum_v<Number>)&&sizeof(Number) <= 4, "8, 16 or 32 bits");
        using Type = std::conditional_t<sizeof(Number) == 1, CmByte, std::conditional_t<sizeof(Number) == 2, CmWord, CmDword>>;
    };
    template <class Number>
    using Unsigned = typename UnsignedOf<Number>::Type;

    BlockType& m_Block;  // not owned
    CmResult m_ResultRead = CM_OK;
    CmResult m_ResultWrite = CM_OK;
};

// The stream of this library's protocols.
using CCmByteStreamNetwork = CCmByteStreamT<CCmMessageBlock, CCmHostNetworkConvertorNormal>;
