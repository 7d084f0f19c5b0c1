// CdpeMappingTuple: an element and the tag under which it is published, as configured.
#pragma once

#include <pvss/CharString.h>

#include <vector>

struct CdpeMappingTuple {
  CharString DPEname;
  CharString tagName;

  static const CharString noTag;  ///< the tag of an entry that names an element alone: the unnamed value
};

/// The pairs of one publication. The tuples belong to whoever fills the vector.
class CvectorOfdpeMappingTuples : public std::vector<CdpeMappingTuple*> {
 public:
  CvectorOfdpeMappingTuples();
  ~CvectorOfdpeMappingTuples();
};
