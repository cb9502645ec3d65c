#include "ServerTestSupport.h"
