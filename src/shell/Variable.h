#pragma once

// Module Variable: the state the control shares once per process, from Init to
// termination. Nothing else in the system is global.

#include <memory>

#include "database/Dba.h"
#include "shell/Components.h"

namespace Variable {

inline std::shared_ptr<DbaClient> TheClient;
inline std::shared_ptr<DbaDatabase> TheDatabase;

inline std::shared_ptr<DbaFile> F_Activites;
inline std::shared_ptr<DbaFile> F_Association;
inline std::shared_ptr<DbaFile> F_FacturOrg;
inline std::shared_ptr<DbaFile> F_OrgPriseCharge;
inline std::shared_ptr<DbaFile> F_PeriodesPaie;
inline std::shared_ptr<DbaFile> F_Tempo;

inline std::shared_ptr<DbaItem> I_Association;
inline std::shared_ptr<DbaItem> I_OrgPriseCharge;
inline std::shared_ptr<DbaItem> I_PeriodesPaie;
inline std::shared_ptr<DbaItem> I_Tempo;

inline bool B_Edition = false;

// Objects of this library still alive, for the unload test of its entry points.
inline int ObjetsVivants = 0;

// The help component: made at its first use, never released.
inline std::shared_ptr<::AideEnLigne> AideEnLigne;

} // namespace Variable
