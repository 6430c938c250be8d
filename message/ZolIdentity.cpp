#include "message/ZolIdentity.h"

CZolIdentity CZolIdentity::sm_oOwn;
