// Processes that publish and receive are killed at any moment, and stopped and continued, while two contexts exchange
// messages among them: those lose nothing, nobody misses anything without being told, and nothing is left in the end.
// As many kills as LBM_KILLS says.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <mutex>
#include <thread>

#include "../api/domain.h"
#include "endurance.h"

namespace endurance {
namespace {

using engine_test::Driven;
using engine_test::Options;
using engine_test::Sender;

bool g_mortal = false;  // this process may be killed

// A mortal has no other way to say it before it is killed.
void Complain(const std::string& text) {
  ADD_FAILURE() << text;
  if (g_mortal) {
    ::_exit(1);
  }
}

// A receiver that answers requests with a letter. Its callbacks may run on another thread.
class Ear {
 public:
  Ear(lbm_context_t* context, const char* topic, char answer) : m_answer(answer) {
    EXPECT_EQ(0, lbm_rcv_create(&m_receiver, context, engine_test::ReceiverTopic(context, topic), &Hear, this, nullptr))
        << lbm_errmsg();
  }
  ~Ear() { EXPECT_EQ(0, lbm_rcv_delete(m_receiver)); }
  Ear(const Ear&) = delete;
  Ear& operator=(const Ear&) = delete;

  Streams Heard() const {
    const std::lock_guard lock(m_mutex);
    return m_streams;
  }
  std::uint64_t Messages() const noexcept { return m_messages; }

 private:
  static int Hear(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    auto& self = *static_cast<Ear*>(clientd);
    const std::lock_guard lock(self.m_mutex);
    if (const std::string fault = self.m_streams.Take(*message); !fault.empty()) {
      Complain(fault);
    }
    if (message->type == LBM_MSG_REQUEST) {
      lbm_send_response(message->response, &self.m_answer, 1, LBM_SRC_NONBLOCK);  // who asked may be gone
    }
    self.m_messages = self.m_streams.messages;
    return 0;
  }

  const char m_answer;
  lbm_rcv_t* m_receiver = nullptr;
  mutable std::mutex m_mutex;
  Streams m_streams;  // guarded by m_mutex
  std::atomic<std::uint64_t> m_messages{0};
};

constexpr char kWitness = 'w';
constexpr char kMortal = 'm';

// Publishes and receives until it is killed, with sources and receivers that come and go.
[[noreturn]] void LiveUntilKilled(unsigned seed) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  g_mortal = true;
  std::mt19937 random(seed);
  const bool sequential = random() % 2 == 0;
  const Driven context({{"operational_mode", sequential ? "sequential" : "embedded"},
                        {"transport_ring_size", std::to_string(kFloodRingBytes).c_str()}});
  std::unique_ptr<Sender> source;
  std::unique_ptr<Ear> witness;
  std::unique_ptr<Ear> mortals;
  for (std::uint32_t sent = 0; !testing::Test::HasFailure();) {
    if (source == nullptr || random() % 500 == 0) {
      source.reset();
      source = std::make_unique<Sender>(context, "MORTAL",
                                        Options{{"transport_pacing", random() % 2 == 0 ? "source" : "receiver"}});
      sent = 0;
    }
    if (witness == nullptr || random() % 300 == 0) {
      witness.reset();
      witness = std::make_unique<Ear>(context, "WITNESS", kMortal);
    }
    if (mortals == nullptr || random() % 300 == 0) {
      mortals.reset();
      mortals = std::make_unique<Ear>(context, "MORTAL", kMortal);
    }
    // Waits for room, which a process that is stopped does not make, unless it is this thread that has to make it.
    const int flags = sequential ? LBM_SRC_NONBLOCK : 0;
    for (auto count = random() % 20; count > 0 && source->Send(FloodMessage(sent), flags) == 0; --count) {
      ++sent;
    }
    if (sequential) {
      EXPECT_EQ(0, lbm_context_process_events(context, 1)) << lbm_errmsg();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // leaves the others some of the processor
    }
  }
  ::_exit(1);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned kPauseMicroseconds = 40'000;  // from one signal to the next, at most
constexpr long kKills = 40;                      // everything takes longer
#else
constexpr unsigned kPauseMicroseconds = 16'000;
constexpr long kKills = 150;
#endif

// Keeps some mortals alive, and kills, stops and continues them. Ends with 0 unless one has ended by itself.
class Fate {
 public:
  explicit Fate(unsigned seed) : m_random(seed) {}

  [[noreturn]] void Rule(long kills) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (kills > 0) {
      for (pid_t& mortal : m_mortals) {
        if (mortal == 0) {
          mortal = Bear();
        }
      }
      ::usleep(static_cast<useconds_t>(m_random() % kPauseMicroseconds));
      pid_t& mortal = m_mortals[m_random() % m_mortals.size()];
      switch (m_random() % 8) {
        case 0:
        case 1:
          ::kill(mortal, SIGSTOP);
          break;
        case 2:
        case 3:
          ::kill(mortal, SIGCONT);
          break;
        default:
          Kill(mortal);
          --kills;
      }
    }
    for (pid_t& mortal : m_mortals) {
      Kill(mortal);
    }
    ::_exit(0);
  }

 private:
  pid_t Bear() {
    const auto seed = static_cast<unsigned>(m_random());
    const pid_t child = ::fork();
    if (child == 0) {
      LiveUntilKilled(seed);
    }
    return child;
  }

  static void Kill(pid_t& mortal) {
    if (mortal <= 0) {
      return;
    }
    int status = 0;
    ::kill(mortal, SIGKILL);
    if (::waitpid(mortal, &status, 0) != mortal || !WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
      ::_exit(1);
    }
    mortal = 0;
  }

  std::mt19937 m_random;
  std::array<pid_t, 8> m_mortals{};
};

// Publishes to the other witness whatever happens to the mortals that receive it, too, and asks questions among it.
class Speaker {
 public:
  explicit Speaker(lbm_context_t* context) : m_source(context, "WITNESS") {}
  ~Speaker() { Forget(); }
  Speaker(const Speaker&) = delete;
  Speaker& operator=(const Speaker&) = delete;

  // So few are on their way that there is always room for them.
  void SpeakTo(const Ear& listener) {
    constexpr std::uint32_t kOnTheWay = 64;
    while (m_sent - listener.Messages() < kOnTheWay) {
      const std::string text = FloodMessage(m_sent);
      if (m_answered && m_sent % 16 == 0) {
        Forget();
        m_answered = false;
        EXPECT_EQ(0, lbm_send_request(&m_request, m_source, text.data(), text.size(), &OnAnswer, this, nullptr, 0));
      } else {
        EXPECT_EQ(0, m_source.Send(text, 0)) << lbm_errmsg();
      }
      ++m_sent;
    }
  }

  const Sender& Source() const noexcept { return m_source; }
  std::uint32_t Sent() const noexcept { return m_sent; }
  bool Answered() const noexcept { return m_answered; }

  void Forget() {
    if (m_request != nullptr) {
      EXPECT_EQ(0, lbm_request_delete(std::exchange(m_request, nullptr)));
    }
  }

 private:
  static int OnAnswer(lbm_request_t*, lbm_msg_t* message, void* clientd) {
    auto& answered = static_cast<Speaker*>(clientd)->m_answered;
    answered = answered || *message->data == kWitness;
    return 0;
  }

  const Sender m_source;
  lbm_request_t* m_request = nullptr;
  std::uint32_t m_sent = 0;
  bool m_answered = true;
};

TEST(Killing, HarmsNobodyElseAndLeavesNothing) {
  const long kills = Setting("LBM_KILLS", kKills);
  const unsigned seed = Seed();
  const test_support::PrivateDomain domain;
  const pid_t fate = ::fork();  // before there are threads
  if (fate == 0) {
    ::raise(SIGSTOP);  // until there are witnesses
    Fate(seed).Rule(kills);
  }
  ASSERT_EQ(fate, ::waitpid(fate, nullptr, WUNTRACED));
  {
    const Driven speaking;
    const Driven listening({});
    const Ear faithful(listening, "WITNESS", kWitness);
    const Ear mortals(listening, "MORTAL", kWitness);
    Speaker speaker(speaking);
    engine_test::PumpUntil({speaking}, "the listener", [&] { return speaker.Source().Subscribers() == 1; });
    engine_test::PumpUntil({speaking}, "the first messages", [&] {
      speaker.SpeakTo(faithful);
      return speaker.Sent() > 1000 && speaker.Answered();
    });
    const Belongings before = Belongings::Now();
    const long allocationsBefore = engine::test::LiveAllocations();

    ::kill(fate, SIGCONT);
    int status = 0;
    while (::waitpid(fate, &status, WNOHANG) == 0) {
      speaker.SpeakTo(faithful);
      EXPECT_EQ(0, lbm_context_process_events(speaking, 1)) << lbm_errmsg();
    }
    EXPECT_EQ(0, status) << "a process ended by itself";

    { const Driven heir; }  // who joins takes away what the dead have left
    engine_test::PumpUntil({speaking}, "the end of all sessions, the last messages and answers", [&] {
      return mortals.Heard().Open() == 0 && faithful.Messages() == speaker.Sent() && speaker.Answered() &&
             speaker.Source().Subscribers() == 1 && Belongings::Now() == before;
    });
    EXPECT_EQ(Belongings::Now(), before);
    constexpr long kSpare = 100;  // containers and pools that have grown
    const long left = engine::test::LiveAllocations() - allocationsBefore;
    EXPECT_LT(left, kSpare);
    const Streams heard = faithful.Heard();
    EXPECT_EQ(heard.lost, 0U);
    EXPECT_EQ(heard.sessions, 1U);
    const Streams others = mortals.Heard();
    EXPECT_GT(others.messages, 0U);
    std::printf(
        "%ld kills; a witness heard %lu messages of the other, and %lu of %lu sources that died, told of %lu lost; "
        "%ld allocations more\n",
        kills, heard.messages, others.messages, others.sessions, others.lost, left);
  }
  EXPECT_THAT(FilesBelow(domain.Directory()), testing::IsEmpty());
}

}  // namespace
}  // namespace endurance
