// Applying a stored model with --ssm: the one-sweep estimate of the initial
// state and the models it refuses (its log and files are golden: file_apply).

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "io/model_file.h"
#include "io/read_back.h"

using namespace dense_ref;
using namespace out_test;
using tarn_test::read_text;
using tarn_test::run_tarnssm;
using tarn_test::ScratchDir;
using tarn_test::write_text;

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

// Each refusal ends the run before any output file: a model for other data,
// no states (no model file: golden apply_before_sge_and_threads), and a value no filter can work
// with, named by its block and its line (H on lines 13-17, R on 20-24, F on 27-28, Q on 31-32).
TEST(ApplyStoredModel, RefusesModelsThatDoNotFit) {
  std::mt19937_64 rng(3);
  ScratchDir dir;
  const Model good = random_model(5, 2, rng);
  write_model(dir / "model.txt", good);
  write_text(dir / "data.txt",
             "@time\t1\t2\t3\t4\n@replicate\t1\t1\t1\t1\no0\t1\t2\t3\t4\no1\t2\t1\t0\t1\n"
             "o2\t5\t3\tNaN\t1\no3\t0\t1\t1\t2\no4\t3\t3\t2\t1\n");
  const std::pair<std::function<void(Model&)>, std::string> unusable[] = {
      {[](Model& m) { m.H(1, 1) = std::nan(""); }, "SSM::H at line 14, column 2 is nan."},
      {[](Model& m) { m.F(0, 1) = HUGE_VAL; }, "SSM::F at line 27, column 2 is inf."},
      {[](Model& m) { m.R(2, 0) = 0.0; }, "SSM::R at line 22 is 0 (variances must be positive)."},
      {[](Model& m) { m.Q(1, 0) = -0.5; },
       "SSM::Q at line 32 is -0.5 (variances must be positive)."},
      {[](Model& m) { m.var(1, 1) = 0.0; },
       "SSM::var at line 10, column 2 is 0 (variances must be positive)."}};
  for (const auto& [spoil, message] : unusable) {
    Model m = good;
    spoil(m);
    write_model(dir / "model.txt", m);
    const auto r = run_tarnssm({"--ssm", "model.txt", "data.txt"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.ends_with(
        "------------------------\nERROR: The SSM model is not usable: " + message + "\n"))
        << r.err;
    EXPECT_EQ(files_in(dir.path()).size(), 2u) << "no output file for " << message;
  }
  write_model(dir / "model.txt", good);
  write_text(dir / "k0.txt",
             "SSM_p_k\t1\t2\n5\t0\n\nSSM::exp\t0\t1\n\nSSM::var\t0\t0\n\nSSM::H\t5\t0\n\n\n\n\n\n\n"
             "SSM::R\t5\t1\n1\n1\n1\n1\n1\n\nSSM::F\t0\t0\n\nSSM::Q\t0\t1\n\n");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--ssm", "model.txt", kSim},
       "  Done. p = 5, dim = 2.\nERROR: Number of objects inconsistent.\n     :  input data: 200  "
       "vs  input SSM: 5\n"},
      {{"--ssm", "k0.txt", "data.txt"},
       "------------------------\nERROR: State dimension must be 1 or more: 0\n"}};
  for (const auto& [args, tail] : cases) {
    const auto r = run_tarnssm(args, dir.path());
    EXPECT_EQ(r.status, 1) << args[1];
    EXPECT_TRUE(r.err.ends_with(tail)) << r.err;
    EXPECT_EQ(files_in(dir.path()).size(), 3u) << "no output file for " << args[1];
  }
}
