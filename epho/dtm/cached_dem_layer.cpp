// A DEM layer handle for a sensor model, shared through the DEM cache.
#include <memory>

#include "efio.h"
#include "eint.h"
#include "epho/dtm.h"
#include "epho/dtm/dtm_files_internal.h"
#include "epho/pyramid.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

namespace EphoLib {

Eimg_Layer* CachedDEMLayerGet(const wchar_t* dem_file_name, boost::shared_ptr<DTMCache>& slot,
                              Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"CachedDEMLayerGet";
  kzdv::ErrorFrame frame(kFn, err);
  try {
    EerrException ctx("epho_Camera", "CachedDEMLayerGet");
    if (!dem_file_name) ctx.Throw(__LINE__, L"Invalid DEM file name");
    // The DEM is reached through its proxy in the temporary directory, so a
    // DEM of any format reads the same way.
    kzdv::HeapPtr<Etxt_Char> proxy(epho_ProxyImageNameGet(dem_file_name, ctx.Err()));
    ctx.Check(__LINE__);
    kzdv::HeapPtr<Etxt_Char> file(efnp_FileNameGet(dem_file_name, ctx.Err()));
    ctx.Check(__LINE__);
    // A proxy removed by the release of an older entry between its writing
    // and the open below is written once more.
    for (int attempt = 0;; ++attempt) {
      eimg_FileProxyWithName(file.get(), proxy.get(), ctx.Err());
      ctx.Check(__LINE__);
      try {
        slot = DTMCacheList::Instance().Open(proxy.get());
        break;
      } catch (...) {
        epho::dtm::ProxyDropIfUnheld(proxy.get());  // no entry came of it
        if (attempt > 0) throw;
      }
    }
    Eint_InitToolkitData* init = eint_GetInit(ctx.Err());
    ctx.Check(__LINE__);
    std::unique_ptr<Estr_StringList, void (*)(Estr_StringList*)> names(
        eimg_LayerGetNames(slot->GetName().c_str(), init, ctx.Err()), estr_StringListDelete);
    ctx.Check(__LINE__);
    Eimg_Layer* layer = eimg_LayerOpen(names->strings[0], init, slot->GetPrivateStorage(),
                                       EIMG_ACCESS_READ, ctx.Err());
    ctx.Check(__LINE__);
    return layer;
  }
  EERR_CATCH(frame, nullptr)
}

}  // namespace EphoLib
