// AddVersionInfo: registers the manager's version text with the platform's resource framework.
//
// Thread     Built once, during static initialisation.
#pragma once

class AddVersionInfo {
 public:
  AddVersionInfo();
};
