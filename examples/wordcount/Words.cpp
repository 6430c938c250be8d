#include "Words.h"

#include <algorithm>
#include <charconv>

namespace wordcount
{

void CWords::addLine(std::string_view strLine, bool bEnd)
{
    ++m_ulMessages;
    m_ulLines += bEnd ? 1 : 0;
    size_t uiAt = 0;
    while (uiAt < strLine.size())
    {
        if (!isLetter(strLine[uiAt]))
        {
            ++uiAt;
            continue;
        }
        m_strWord.clear();
        for (; uiAt < strLine.size() && isLetter(strLine[uiAt]); ++uiAt)
        {
            m_strWord += static_cast<char>(strLine[uiAt] | 0x20); // to lower case
        }
        ++m_oCounts[m_strWord];
    }
}

namespace
{

/// Takes a number and the byte behind it off the front of strText.
bool takeNumber(std::string_view &strText, char cBehind, std::uint64_t &ulNumber)
{
    const char *const pcEnd = strText.data() + strText.size();
    const auto oResult = std::from_chars(strText.data(), pcEnd, ulNumber);
    if (oResult.ec != std::errc() || oResult.ptr == pcEnd || *oResult.ptr != cBehind)
    {
        return false;
    }
    strText.remove_prefix(static_cast<size_t>(oResult.ptr - strText.data()) + 1);
    return true;
}

} // namespace

bool CWords::addText(std::string_view strText)
{
    std::uint64_t ulNumber = 0;
    std::uint64_t ulLines = 0;
    if (!takeNumber(strText, ' ', ulNumber) || !takeNumber(strText, '\n', ulLines))
    {
        return false;
    }
    m_ulMessages += ulNumber;
    m_ulLines += ulLines;
    while (!strText.empty())
    {
        if (!takeNumber(strText, ' ', ulNumber))
        {
            return false;
        }
        const size_t uiEnd = strText.find('\n');
        if (uiEnd == std::string_view::npos)
        {
            return false;
        }
        m_oCounts[std::string(strText.substr(0, uiEnd))] += ulNumber;
        strText.remove_prefix(uiEnd + 1);
    }
    return true;
}

std::string CWords::toText() const
{
    std::string strText = std::to_string(m_ulMessages) + ' ' + std::to_string(m_ulLines) + '\n';
    for (const auto &oEntry : m_oCounts)
    {
        strText += std::to_string(oEntry.second) + ' ' + oEntry.first + '\n';
    }
    return strText;
}

std::uint64_t CWords::words() const
{
    std::uint64_t ulSum = 0;
    for (const auto &oEntry : m_oCounts)
    {
        ulSum += oEntry.second;
    }
    return ulSum;
}

std::vector<std::pair<std::string, std::uint64_t>> CWords::sorted() const
{
    std::vector<std::pair<std::string, std::uint64_t>> oAll(m_oCounts.begin(), m_oCounts.end());
    std::sort(oAll.begin(), oAll.end(),
              [](const auto &oLeft, const auto &oRight)
              { return oLeft.second != oRight.second ? oLeft.second > oRight.second : oLeft.first < oRight.first; });
    return oAll;
}

} // namespace wordcount
