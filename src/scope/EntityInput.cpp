#include "shell/Ctr_Calvarine.h"
