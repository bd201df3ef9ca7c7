// The HTTP listener.
#include "httpserver.h"

#include <strings.h>

#include "httpconnection.h"
#include "pelkoerr.h"

HTTPSERVER::HTTPSERVER(UI4 maxBlockSize, OBJMODE mode)
    : SERVER(), MaxBlockSize(maxBlockSize), DecodeBuffers(0), Features(0) {
  Mode = mode;
}

SI4 HTTPSERVER::NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) {
  PHTTPCONNECTION c = new HTTPCONNECTION(MaxBlockSize, Mode, sock);
  c->Features = Features.load();
  c->DecodeBuffers = DecodeBuffers.load();
  return AdoptConnection(fds, name, c);
}

// Running connections take new decode flags as well.
static PHIERAKI SetDecodeSrv(PHIERAKI h, void* flags) {
  PRPCOBJS o = h->pObj;
  if (o && o->Type == TConnection && o->Mode == MHttp) {
    PHTTPCONNECTION c = dynamic_cast<PHTTPCONNECTION>(o);
    if (c) c->SetDecodeBuffers(h, *(PUI4)flags);
  }
  return nullptr;
}

SI4 HTTPSERVER::SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) {
  bool features = strcasecmp(name, "WSFeatures") == 0;
  if (!features && strcasecmp(name, "DecodeBuffers") != 0) return SERVER::SetRPCProp(pItem, name, value);
  SI4 v = 0;
  SI4 rc = value ? VAGetSI4(value, 0, &v) : ERR_VALUE;
  if (rc) return rc;
  if (features) {
    Features = (UI4)v;
    return 0;
  }
  UI4 flags = (UI4)v;
  DecodeBuffers = flags;
  PHIERAKI self = OwnNode(pItem, this);
  if (self) self->LoopSub(SetDecodeSrv, &flags);
  return 0;
}
