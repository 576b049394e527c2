#include "TransferSession.h"
