// Serves the status page of a gateway that does not exist: scene-server SCENE [address:]PORT. Prints the port and runs
// until its input ends. The browser test looks at it, and so may whoever works on the page.

#include "gateway/watch/http/ZolHttpServer.h"
#include "http/Scenes.h"

#include <cstdio>

int main(int iCount, char **ppcArguments)
{
    SZolGatewaySnapshot oProbe;
    if (iCount != 3 || !zoltest::fillScene(ppcArguments[1], 0, oProbe))
    {
        fprintf(stderr, "usage: scene-server idle|load|slow|many|hostile|draining [address:]port\n");
        return 2;
    }
    CZolSnapshotExchange oExchange;
    const zoltest::CSceneThread oThread(oExchange, ppcArguments[1]);
    CZolHttpServer oServer(oExchange);
    std::string strError;
    if (!oServer.start(ppcArguments[2], strError))
    {
        fprintf(stderr, "%s\n", strError.c_str());
        return 1;
    }
    printf("%u\n", static_cast<unsigned int>(oServer.port()));
    fflush(stdout);
    while (getchar() != EOF)
    {
    }
    oServer.stop();
    return 0;
}
