#ifndef ZOL_FACADE_ZOLBERINPUT_H
#define ZOL_FACADE_ZOLBERINPUT_H

#include <cstddef>
#include <cstdint>
#include <streambuf>

/// The bytes of a payload, as the decoders of the ASN.1 runtime read them, with a guard against two things that a peer
/// can do to them:
///
/// - Nesting. A decoder calls itself for each level of a value, with a hundred bytes of stack and more, and a level
///   costs its sender two bytes: a message of 200 KB would run the stack over.
/// - Lengths. Decoders believe them. The one of an integer gives up its old number before it asks for as much memory as
///   the length says, and if there is not that much, the destructor frees the old number again; the one of a string in
///   pieces goes on without the bytes that are missing, with a null pointer in their place. Ten bytes end the process.
///
/// Neither can be told from the bytes beforehand, since decoders read on past the stated end of a value. But they have
/// to come for every byte. So this object follows the heads of the values as they are read, and throws when a value is
/// longer than what is left or too much of the stack is used up, before the decoder has seen the byte that harms it.
///
/// Threads:   to be used by the thread that made it, in functions that its maker calls.
/// Ownership: the bytes stay the caller's and must outlive the object.
/// Errors:    std::length_error, out of the functions that read.
class CZolBerInput : public std::streambuf
{
public:
    /// Stack that decoding may take: room for a thousand levels, and little against what a thread has.
    static constexpr std::size_t MAX_STACK_BYTES = 512 * 1024;

    CZolBerInput(const char *pcData, std::size_t uiLength);

protected:
    int_type underflow() override;                                        ///< the next byte, which stays
    int_type uflow() override;                                            ///< the next byte
    std::streamsize xsgetn(char *pcTo, std::streamsize lLength) override; ///< as many as there are
    pos_type seekoff(off_type lOffset, std::ios_base::seekdir eFrom, std::ios_base::openmode eMode) override;
    pos_type seekpos(pos_type oPosition, std::ios_base::openmode eMode) override;

private:
    // What the next byte is. Decoders read tags and lengths byte by byte.
    enum EnumPart
    {
        PART_TAG,
        PART_MORE_TAG, // of a tag that does not fit one byte
        PART_LENGTH,
        PART_MORE_LENGTH,
        PART_CONTENT // of a primitive value; that of a constructed one begins with a tag
    };

    void checkStack() const;
    void takeUp();
    void follow(unsigned char ucByte);
    void followLength(unsigned char ucByte);
    void endLength();
    std::size_t left() const { return static_cast<std::size_t>(m_pcEnd - m_pcAt); }

    const char *const m_pcBegin;
    const char *const m_pcEnd;
    const std::uintptr_t m_uiStack; // where the stack of the maker stands
    const char *m_pcAt;
    const char *m_pcFollowed; // the place that the following describes
    EnumPart m_ePart = PART_TAG;
    bool m_bConstructed = false;       // the value whose head was read last
    unsigned int m_uiLengthBytes = 0;  // that are still to come, of a length that does not fit one byte
    std::uint64_t m_ulLength = 0;      // so far
    std::uint64_t m_ulContentLeft = 0; // of a primitive value
};

#endif
