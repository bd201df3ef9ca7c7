// The verbs that send: a request or data block under a connection, and the
// answers and progress reports of command mode. None touches a socket; each
// adds an object in SReadyToSend and wakes the work thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "cmdconnection.h"
#include "command.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "root.h"
#include "verbresult.h"
#include "verbs.h"

#define MODULE 0x00000080

#define SEND_NAMELEN 97
#define RESPOND_NAMELEN 161

// The name and the flag of a send; the flag may be left out.
static SI4 SendArgs(PAA arg, PCH1 name, UI4 room, PUI4 flag, bool flagRequired) {
  *flag = 0;
  if (!arg) return ERR_ARG_MISSING;
  SI4 rc = VAGetCH1(arg, 0, name, room, VACHAR);
  if (rc) return rc;
  if (arg->type != VAPntr || VAElems(arg) < 2) return flagRequired ? ERR_ARG_MISSING : 0;
  SI4 f = 0;
  rc = VAGetSI4(arg, 1, &f);
  *flag = (UI4)f;
  return rc;
}

// The host's packed left argument and the size its own length word gives.
static SI4 LeftBlock(UI4** ppLeft, PUI4* pz, PUI4 size) {
  if (!ppLeft || !*ppLeft) return ERR_ARG_MISSING;
  *pz = *ppLeft;
  *size = GetBE32(*pz);
  return *size < 8 ? ERR_ARCHITECTURE : 0;
}

PAA ASendZ(PHIERAKI root, UI4** ppLeft, PAA arg) {
  char name[SEND_NAMELEN + 1 + AUTONAME_ROOM];
  UI4 flag, size;
  PUI4 z;
  SI4 rc = SendArgs(arg, name, SEND_NAMELEN + 1, &flag, false);
  if (!rc) rc = LeftBlock(ppLeft, &z, &size);
  if (!rc && !root) rc = ERR_ROOT_NOT_FOUND;
  if (rc) return VARc(rc);
  HOSTINSIDE inside(root);
  PHIERAKI h = root->FindLeaf(name);
  PCH1 sub = name + strlen(name);
  if (!h) {
    h = root->FindParent(name);
    if (!h) return VARc(ERR_PARENT_NOT_FOUND);
    PCH1 dot = strrchr(name, '.');
    sub = dot ? dot + 1 : name;
  }
  LOG(1, ("ASendZ %s complete %u", name, flag));
  rc = h->pObj ? h->pObj->SendZ(h, sub, z, size, flag) : ERR_INVALID_OBJECT;
  return rc ? VARc(rc) : RcValue(VAText(name));
}

// The bytes of a data block, or the file it names, in the buffer of the
// connection's mode (the block modes put their header in front).
static SI4 DataBuffer(PCONNECTION c, PUI4 z, PBUFFER* ppOut) {
  *ppOut = nullptr;
  PCH1 data = nullptr;
  UI4 len = 0;
  int file = -1;
  SI4 rc = GetVector(false, (PCH1)z + 8, &len, &data);
  if (rc > ERR_VALUE) {
    rc = GetFileHandle((PCH1)z + 8, &file);
    data = nullptr;
    len = 0;
  }
  if (rc) return rc;
  if (!data && file < 0) return ERR_NO_DATA;
  return c->ComposeBuffer((PUI1)data, len, file, ppOut);
}

static bool SendsFrom(PRPCOBJS o) {
  return o && (o->Type == TClient || (o->Type == TConnection && o->Mode != MCommand));
}

// The generic send, by full name; a name that is a connection itself gets
// a generated part.
static SI4 Send(PHIERAKI root, PCH10 name, PUI4 z, UI4 size, UI4 flag) {
  if (!root) return ERR_ROOT_NOT_FOUND;
  PHIERAKI conn = root->FindParent(name);
  if (!conn || !conn->pObj) return ERR_PARENT_NOT_FOUND;
  if (conn->pObj->Type == TRoot || conn->pObj->Type == TServer) {
    conn = root->FindLeaf(name);
    if (!conn || !conn->pObj || (conn->pObj->Type != TClient && conn->pObj->Type != TConnection))
      return ERR_INVALID_OBJECT;
    sprintf(name + strlen(name), ".Auto%08u", ((PCONNECTION)(PRPCOBJS)conn->pObj)->NameCnt++);
  }
  PCONNECTION c = (PCONNECTION)(PRPCOBJS)conn->pObj;
  if (!SendsFrom(c)) return ERR_INVALID_OBJECT;
  if (c->State != SConnected) return ERR_CLOSED;
  PCH1 sub = strrchr(name, '.') + 1;
  if (conn->FindLeaf(sub)) return ERR_NAME_IN_USE;
  RPCOBJS* o;
  if (c->Mode != MCommand) {
    if (c->Mode > MHttp) return ERR_INVALID_OBJECT;
    PAA check = size == GetBE32(z) ? UnpackZ(z, size) : nullptr;
    if (!check) return ERR_ARCHITECTURE;
    VAFree(check);
    PBUFFER b = nullptr;
    SI4 rc = DataBuffer(c, z, &b);
    if (rc) return rc;
    PMESSAGE m = new MESSAGE(b, SReadyToSend);
    m->Mode = c->Mode;
    m->NextState = flag == 3 ? SSent : SFinished;
    if (flag == 1) m->NextPState = SShutdown;
    o = m;
  } else {
    o = NewSendCommand(sub, z, size, flag);
    if (!o) return ERR_MEMORY_ALLOC;
  }
  if (!conn->AddNew(sub, o)) {
    delete o;
    return ERR_NAME_IN_USE;
  }
  return Dirty(root);
}

// A node's name as a terminated text.
static void NodeText(PHIERAKI h, PCH1 out) {
  memcpy(out, h->Name, MAXNAMELENGTH);
  out[MAXNAMELENGTH] = 0;
}

// Command mode's answer (flag not 0) or progress report (flag 0) to a
// request received under this name.
static SI4 Respond(PHIERAKI root, PCH1 name, PUI4 z, UI4 size, UI4 flag) {
  if (!root) return ERR_ROOT_NOT_FOUND;
  PHIERAKI h = root->FindLeaf(name);
  if (!h || !h->pObj || h == root) return ERR_OBJECT_NOT_FOUND;
  // A finished object is on its way out of the tree: the work thread may
  // delete it at any moment.
  OBJSTATE s = h->pObj->State;
  if (s == SFinished || s == SMarkedForDeletion) return ERR_OBJECT_NOT_FOUND;
  if (h->pObj->Mode != MCommand) {
    char full[RESPOND_NAMELEN + AUTONAME_ROOM];
    snprintf(full, RESPOND_NAMELEN + 1, "%s", name);
    return Send(root, full, z, size, flag);
  }
  PHIERAKI parent = h->Parent();
  if (!parent || !parent->pObj || parent->pObj->State != SConnected) return ERR_CLOSED;
  if (h->pObj->Type != TCommand) return ERR_INVALID_OBJECT;
  PCOMMAND c = (PCOMMAND)(PRPCOBJS)h->pObj;
  // Only a request received and not yet answered takes an answer or a
  // report: anything else would replace a buffer that may be on its way.
  if (!c->pRecv || c->pSend) return ERR_STATE;
  char command[MAXNAMELENGTH + 1];
  NodeText(h, command);
  if (flag) {
    LOG(1, ("Respond to %s", name));
    PBUFFER b = IPmsg(IPMAnswer, command, (PCH1) "", (PCH1) "", (PCH1)z, size);
    if (!b) return ERR_MEMORY_ALLOC;
    c->pSend = b;
    c->NextState = SFinished;
    c->State = SReadyToSend;
    return Dirty(root);
  }
  LOG(1, ("Progress to %s", name));
  char progress[MAXNAMELENGTH + 1];
  snprintf(progress, sizeof(progress), "Progress%08u", c->ProgressCnt++);
  PBUFFER b = IPmsg(IPMMessage, command, progress, (PCH1) "", (PCH1)z, size);
  if (!b) return ERR_MEMORY_ALLOC;
  PMESSAGE m = new MESSAGE(b, SReadyToSend);
  m->NextState = SFinished;
  if (!h->AddNew(progress, m)) {
    delete m;
    return ERR_NAME_IN_USE;
  }
  return Dirty(root);
}

PAA ARespondZ(PHIERAKI root, UI4** ppLeft, PAA arg) {
  char name[RESPOND_NAMELEN + 1];
  UI4 flag, size;
  PUI4 z;
  SI4 rc = SendArgs(arg, name, sizeof(name), &flag, true);
  if (!rc) rc = LeftBlock(ppLeft, &z, &size);
  HOSTINSIDE inside(root);
  if (!rc) rc = Respond(root, name, z, size, flag);
  if (rc) LOG(1, ("ERROR %d Obj: %s datasize %d complete %d ", rc, name, 0, (int)flag));
  return VARc(rc);
}
