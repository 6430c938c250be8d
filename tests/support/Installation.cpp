#include "support/Installation.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace zoltest
{

CInstallation::CInstallation(const std::string &strConfig)
{
    std::string strTemplate = (fs::temp_directory_path() / "zol-test-XXXXXX").string();
    if (mkdtemp(strTemplate.data()) == nullptr)
    {
        throw std::runtime_error("cannot make a temporary folder");
    }
    m_strRoot = strTemplate;
    fs::create_directories(m_strRoot + "/conf/log");
    writeConfig(strConfig);
    setenv("ZOLROOT", m_strRoot.c_str(), 1); // NOLINT(concurrency-mt-unsafe): set before any thread starts
}

CInstallation::~CInstallation()
{
    std::error_code oIgnored;
    fs::remove_all(m_strRoot, oIgnored);
}

void CInstallation::writeConfig(const std::string &strConfig) const
{
    std::ofstream(m_strRoot + "/conf/zol.cfg") << strConfig;
}

std::string CInstallation::logText() const
{
    std::vector<std::string> oNames;
    for (const auto &oEntry : fs::directory_iterator(logFolder()))
    {
        oNames.push_back(oEntry.path().string());
    }
    std::sort(oNames.begin(), oNames.end());
    std::string strText;
    for (const auto &strName : oNames)
    {
        strText += readFile(strName);
    }
    return strText;
}

unsigned short freePort()
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in oAddr{};
    oAddr.sin_family = AF_INET;
    oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t iLength = sizeof oAddr;
    if (bind(iSocket, reinterpret_cast<sockaddr *>(&oAddr), sizeof oAddr) != 0 ||
        getsockname(iSocket, reinterpret_cast<sockaddr *>(&oAddr), &iLength) != 0)
    {
        throw std::runtime_error("cannot find a free port");
    }
    close(iSocket);
    return ntohs(oAddr.sin_port);
}

std::string readFile(const std::string &strPath)
{
    std::ifstream oFile(strPath, std::ios::binary);
    std::ostringstream oText;
    oText << oFile.rdbuf();
    return oText.str();
}

unsigned int countOf(const std::string &strText, const std::string &strPart)
{
    unsigned int uiCount = 0;
    for (size_t uiAt = strText.find(strPart); uiAt != std::string::npos; uiAt = strText.find(strPart, uiAt + 1))
    {
        ++uiCount;
    }
    return uiCount;
}

} // namespace zoltest
