#include "uci/workforce.h"

workForce theWorkForce;
