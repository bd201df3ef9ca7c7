// The verbs the host reaches by name through Call. Monadic verbs take the
// unpacked right argument; dyadic ones get the host's own pointer to the
// packed left block as well, never unpacked.
#pragma once

#include "root.h"
#include "vapl.h"

typedef PAA (*PFNMONADIC)(PHIERAKI, PAA);
typedef PAA (*PFNDYADIC)(PHIERAKI, UI4**, PAA);

PAA AWaitZ(PHIERAKI pRoot, UI4** ppLeft, PAA pRight);
PAA ASendZ(PHIERAKI pRoot, UI4** ppLeft, PAA pRight);
PAA ARespondZ(PHIERAKI pRoot, UI4** ppLeft, PAA pRight);
PAA AClose(PHIERAKI pRoot, PAA pRight);
PAA ATree(PHIERAKI pRoot, PAA pRight);
PAA ASetProp(PHIERAKI pRoot, PAA pRight);
PAA AGetProp(PHIERAKI pRoot, PAA pRight);
PAA ASrv(PHIERAKI pRoot, PAA pRight);
PAA AClt(PHIERAKI pRoot, PAA pRight);
PAA ASetRelay(PHIERAKI pRoot, PAA pRight);
PAA ACerts(PHIERAKI pRoot, PAA pRight);
