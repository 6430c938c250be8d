#ifndef ZOL_TESTS_SYSTEM_PEERPROTOCOL_H
#define ZOL_TESTS_SYSTEM_PEERPROTOCOL_H

/// What the tests ask of a peer, see Peer.cpp.
namespace peer
{

const unsigned char MANAGER = 1;
const unsigned short TASK = 1;

enum EnumCommand
{
    CMD_ECHO = 1,     ///< the body comes back
    CMD_COLLECT = 2,  ///< counted and checked; no answer
    CMD_COLLECTED = 3 ///< the answer is "COUNT FAULTS"
};

} // namespace peer

#endif
