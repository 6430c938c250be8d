#ifndef ZOL_MESSAGE_ZOLPDULOG_H
#define ZOL_MESSAGE_ZOLPDULOG_H

class CZolMsgPdu;

/// One line about a message to the run log, at the level of info; for whoever takes messages in. Any thread.
void zolLogHeader(const CZolMsgPdu &oPdu);

#endif
