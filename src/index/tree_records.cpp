#include "tree_records.h"

template class BTree<FidSigRecord, FidSigLess>;
template class BTree<SrcFidRecord, SrcFidLess>;
template class BTree<SigFidRecord, SigFidLess>;
