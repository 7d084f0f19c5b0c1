#include "dpeMappingTuple.h"

const CharString CdpeMappingTuple::noTag("");

CvectorOfdpeMappingTuples::CvectorOfdpeMappingTuples() = default;

CvectorOfdpeMappingTuples::~CvectorOfdpeMappingTuples() = default;
