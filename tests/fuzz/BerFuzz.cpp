// Any bytes as the body of a message: decoded as a type that contains itself, a string in pieces, an integer and the
// like, they are a value or an exception, and the targets can be destroyed afterwards.
//
// No wide string is among the types: what the runtime does with one in pieces of indefinite length, to ask for all the
// memory there is, throws in a process but ends it under the sanitizer.
//
// Input: one byte that chooses the type, then the body.

#include "facade/ZolBerInput.h"

#include <Nested.h>
#include <memory>

namespace
{

std::unique_ptr<SNACC::AsnType> makeTarget(std::uint8_t ucType)
{
    switch (ucType % 7)
    {
    case 0:
        return std::make_unique<SNACC::NestedList>();
    case 1:
        return std::make_unique<SNACC::NestedTree>();
    case 2:
        return std::make_unique<SNACC::NestedBag>();
    case 3:
        return std::make_unique<SNACC::AsnOcts>();
    case 4:
        return std::make_unique<SNACC::AsnBits>();
    case 5:
        return std::make_unique<SNACC::AsnAny>();
    default:
        return std::make_unique<SNACC::AsnInt>();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize)
{
    if (ulSize == 0)
    {
        return 0;
    }
    const std::unique_ptr<SNACC::AsnType> oTarget = makeTarget(pucData[0]);
    try
    {
        CZolBerInput oInput(reinterpret_cast<const char *>(pucData) + 1, ulSize - 1);
        const SNACC::AsnBuf oBuffer(&oInput);
        SNACC::AsnLen ulDecoded = 0;
        oTarget->BDec(oBuffer, ulDecoded);
    }
    catch (...)
    {
        return 0; // as zol::decodeAsn does
    }
    return 0;
}
