#pragma once
// The working records of an estimation, made once for the largest state
// dimension they are to serve.

#include <memory>

#include "Args.h"
#include "data/SSMData.h"
#include "model/SSM.h"

struct EstimationRecords {
  EstimationRecords(const SSMData* data, int k, int constrain_F);
  std::unique_ptr<SSM> ssm_a;  // working model (and best model, in turn, in the restarts)
  std::unique_ptr<SSM> ssm_b;
  std::unique_ptr<SSMState> state;
  std::unique_ptr<SSMSuffStat> suff_a;
  std::unique_ptr<SSMSuffStat> suff_b;
  std::unique_ptr<SSMWork> work;
};

// The largest entry of dims, searched from -2147483647.
int max_dimension(const Args* args);
