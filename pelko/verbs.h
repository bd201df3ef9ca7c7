// The verbs the host reaches by name through Call. Monadic verbs take the
// unpacked right argument; dyadic ones get the host's own pointer to the
// packed left block as well, never unpacked.
#pragma once

#include "certdata.h"
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

// The opening verbs' work, for the debug link too: a listener or a client
// added under root by name. A callback and the HTTP features given here are
// in place before the object can take its first connection or message.
SI4 Server(PHIERAKI root, PCH10 name, PCH10 port, OBJMODE mode, UI4 size, UI4 magic,
           PCERTDATA cert, PCH10 address, PROTOCOL prot, PRANGES allow, PRANGES deny,
           TPOOSFN oosfn = nullptr, UI4 features = 0);
SI4 Client(PHIERAKI root, PCH10 name, PCH10 address, PCH10 port, PCH10 unused, OBJMODE mode,
           UI4 size, UI4 magic, PCERTDATA cert, PROTOCOL prot, TPOOSFN oosfn = nullptr);
