// Applying a stored model with --ssm: the one-sweep estimate of the initial
// state against the textbook passes. Its log and files, and the models it
// refuses, are golden cases (file_apply, model_*).

#include <gtest/gtest.h>

#include <random>

#include "io/model_file.h"
#include "io/read_back.h"

using namespace dense_ref;
using namespace out_test;
using tarn_test::read_text;
using tarn_test::run_tarnssm;
using tarn_test::ScratchDir;

namespace {

void write_model(const std::filesystem::path& path, const Model& m) {
  std::FILE* fp = std::fopen(path.c_str(), "w");
  write_model(to_ssm(m).get(), m.p, m.k, fp);
  std::fclose(fp);
}

}  // namespace

TEST(ApplyStoredModel, StatesUnderTheStoredModelMatchTextbookPasses) {
  std::mt19937_64 rng(2024);
  const Model stored = random_model(200, 2, rng);
  const Data d = read_centred(kSim);
  for (const bool update_mu : {true, false}) {
    SCOPED_TRACE(testing::Message() << "update_mu " << update_mu);
    ScratchDir dir;
    write_model(dir / "model.txt", stored);
    std::vector<std::string> args{"--ssm", "model.txt", "-i", "3", kSim};
    if (!update_mu) args.insert(args.begin() + 2, {"--update-mu", "off"});
    const auto r = run_tarnssm(args, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    // exp = (Xs[1] - Xp[0]) + Xs[0] / n_replicates, from the last replicate alone.
    Model m = stored;
    if (update_mu) {
      const auto f = filter(m, d, 2);
      const auto s = smooth(m, f);
      for (int j = 0; j < 2; ++j) m.exp(j, 0) = (s.Xs[1](j, 0) - f.Xp[0](j, 0)) + s.Xs[0](j, 0) / 3;
    }
    const auto reps = read_state_file(read_text(dir / "result.D002.S003.K.dat"), 12);
    ASSERT_EQ(reps.size(), 3u);
    for (int rr = 0; rr < 3; ++rr) expect_states(reps[rr], m, d, rr);
  }
}
