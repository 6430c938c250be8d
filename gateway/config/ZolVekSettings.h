#ifndef ZOL_VEK_SETTINGS_H
#define ZOL_VEK_SETTINGS_H

#include "gateway/pipe/ZolVekFrame.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// What happens to a frame whose receiver's queue is full.
enum EnumZolVekSlowConsumer
{
    VEK_SLOW_BLOCK, ///< its source is not read until there is room
    VEK_SLOW_DROP,  ///< the frame is dropped and counted
    VEK_SLOW_CLOSE  ///< the receiver's pipe is closed
};

/// What happens to a frame that names another source than the one its pipe is registered under.
enum EnumZolVekCheckSource
{
    VEK_CHECK_OFF,
    VEK_CHECK_LOG, ///< it goes on, and a line tells
    VEK_CHECK_DROP
};

/// An IPv4 network: addresses that agree with m_uiAddress in the first m_iBits bits. Host order.
struct SZolVekNetwork
{
    std::uint32_t m_uiAddress = 0;
    int m_iBits = 0;

    bool contains(std::uint32_t uiAddress) const
    {
        return m_iBits == 0 || (uiAddress ^ m_uiAddress) >> (32 - m_iBits) == 0;
    }
};

/// The values that the gateway runs by, each checked.
struct SZolVekSettings
{
    std::string m_strListenHost = "127.0.0.1";
    unsigned int m_uiListenPort = 7100;
    std::string m_strHttp; ///< "address:port" of the status page; empty: there is none
    unsigned int m_uiLogLevel = 4;
    std::string m_strLogPath; ///< empty: lines go to standard error
    unsigned int m_uiMaxLogNumber = 10;
    unsigned int m_uiMaxLogSize = 10485760;
    unsigned int m_uiMaxConnections = 10000;
    unsigned int m_uiMaxUnregistered = 256;
    unsigned int m_uiMaxFrameBytes = 16 * 1024 * 1024;
    unsigned int m_uiRegisterSeconds = 5;
    std::uint64_t m_ulPipeQueueBytes = 64ull * 1024 * 1024;
    std::uint64_t m_ulTotalQueueBytes = 0; ///< set by the constructor: 1 GiB or half of the memory
    EnumZolVekSlowConsumer m_eSlowConsumer = VEK_SLOW_BLOCK;
    unsigned int m_uiStuckSeconds = 120;
    unsigned int m_uiHelloSeconds = 60;
    unsigned int m_uiSilenceSeconds = 180;
    unsigned int m_uiProbeSeconds = 3;
    unsigned int m_uiHandleRestSeconds = 60;
    unsigned int m_uiGraceSeconds = 0;
    unsigned int m_uiDrainSeconds = 10;
    std::vector<SZolVekNetwork> m_oAllowFrom;                              ///< of every id that has no list of its own
    std::map<std::uint16_t, std::vector<SZolVekNetwork>> m_oAllowFromById; ///< by process id
    bool m_bDebugFromAll = true;             ///< any process may send debug commands to other ones
    std::vector<std::uint16_t> m_oDebugFrom; ///< else the ids that may
    EnumZolVekCheckSource m_eCheckSource = VEK_CHECK_OFF;
    unsigned int m_uiMaxPipesPerAddress = 0;             ///< connections, registered or not; 0 is no limit
    std::uint64_t m_ulMaxFramesPerSecond = 0;            ///< from one pipe; 0 is no limit
    std::uint64_t m_ulMaxBytesPerSecond = 0;             ///< from one pipe; 0 is no limit
    std::map<TZolVekKey, std::uint16_t> m_oPorts;        ///< by process id and handle
    std::map<std::uint16_t, std::uint16_t> m_oPortsById; ///< by process id

    SZolVekSettings();
};

/// One setting as it is written: in a file, or as an option.
struct SZolVekEntry
{
    std::string m_strKey;
    std::string m_strValue;
    std::string m_strOrigin; ///< "file:line", or the option
};

/// A setting that the gateway knows: all there is to say about it.
struct SZolVekKeyInfo
{
    const char *m_pcKey;    ///< "<id>" at its end stands for a process id, or an id and a handle with a dot between
    const char *m_pcOption; ///< the same as an option of the command line
    const char *m_pcUnit;
    bool m_bReloads; ///< a reload changes it
    const char *m_pcHelp;

    /// Takes strValue over. Empty, or what is wrong with it. strWho is what stands in the place of "<id>".
    std::function<std::string(SZolVekSettings &, const std::string &strWho, const std::string &strValue)> m_fnParse;

    /// The value as it is written. Empty for one that is not set.
    std::function<std::string(const SZolVekSettings &)> m_fnPrint;

    /// Gives the first the value of the second. May be null where a reload changes it.
    std::function<void(SZolVekSettings &, const SZolVekSettings &)> m_fnCopy;

    /// The key without "<id>".
    std::string stem() const
    {
        const std::string strKey = m_pcKey;
        return strKey.substr(0, strKey.find('<'));
    }

    /// There are entries of it for single processes.
    bool isById() const { return stem() != m_pcKey; }

    /// The key of an entry is this one.
    bool isKeyOf(const std::string &strEntryKey) const
    {
        return isById() ? strEntryKey.compare(0, stem().size(), stem()) == 0 : strEntryKey == m_pcKey;
    }
};

/// The table of all keys, in the order of the documentation.
const std::vector<SZolVekKeyInfo> &zolVekKeys();

/// Turns entries into settings.
///
/// Errors: nothing is thrown. Every bad entry adds "origin: key: what is wrong" to the faults, a line that cannot be an
///         entry "origin: what is wrong", and settings() is to be used only if there is none.
class CZolVekSettingsReader
{
public:
    /// Adds the entries of a file in the format of zol.cfg: lines of key = value, blanks around both cut off, comments
    /// behind a first "#", lines without "=" skipped, the first of two equal keys wins. A line of more than 511
    /// characters or with a zero byte, which zol.cfg would cut, is a fault. False if it cannot be read.
    bool addFile(const std::string &strPath);

    /// As addFile, from the text of one.
    void addText(const std::string &strName, const std::string &strText);

    /// Adds one entry. The first entry of a key wins.
    void add(const SZolVekEntry &oEntry);

    /// Checks all entries. True if there is no fault.
    bool check();

    const SZolVekSettings &settings() const { return m_oSettings; }
    const std::vector<std::string> &faults() const { return m_oFaults; }

    /// One line "Key = value  (unit; origin or default)" for every key.
    std::string effective() const;

private:
    void addLine(const std::string &strOrigin, const std::string &strWhole);
    void apply(const SZolVekEntry &oEntry);
    void fault(const SZolVekEntry &oEntry, const std::string &strWhat);
    void checkTogether();

    std::vector<SZolVekEntry> m_oEntries;
    std::vector<std::string> m_oLineFaults; // of lines that gave no entry
    std::vector<std::string> m_oFaults;
    SZolVekSettings m_oSettings;
};

/// The keys with different values, each "Key: old -> new".
std::vector<std::string> zolVekDifferences(const SZolVekSettings &oOld, const SZolVekSettings &oNew, bool bReloadable);

/// oNew as a running gateway may take it over: what only a restart changes is as in oRunning.
SZolVekSettings zolVekReloaded(const SZolVekSettings &oRunning, const SZolVekSettings &oNew);

#endif
