#ifndef WORDCOUNT_WORDS_H
#define WORDCOUNT_WORDS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace wordcount
{

/// Words and how often they came. A word is a run of the letters A to Z, in lower case; every other byte divides.
class CWords
{
public:
    /// Counts the words of one line, or of a piece of it that divides no word; bEnd with the last piece.
    void addLine(std::string_view strLine, bool bEnd);

    /// Adds what toText gave. False if the text is damaged.
    bool addText(std::string_view strText);

    /// "MESSAGES LINES\n", then "COUNT WORD\n" for each word.
    std::string toText() const;

    std::uint64_t messages() const { return m_ulMessages; } ///< calls of addLine
    std::uint64_t lines() const { return m_ulLines; }
    std::uint64_t words() const;
    std::uint64_t distinct() const { return m_oCounts.size(); }

    /// All words, the most frequent first, those of equal count by their letters.
    std::vector<std::pair<std::string, std::uint64_t>> sorted() const;

private:
    std::uint64_t m_ulMessages = 0;
    std::uint64_t m_ulLines = 0;
    std::unordered_map<std::string, std::uint64_t> m_oCounts;
    std::string m_strWord; // kept for its memory
};

/// Whether cByte belongs to a word.
inline bool isLetter(char cByte)
{
    return (cByte >= 'a' && cByte <= 'z') || (cByte >= 'A' && cByte <= 'Z');
}

} // namespace wordcount

#endif
