/* One register, written by majorities, on three nodes: who promises, accepts, decides, forgets and comes back.
 *
 * A register decides one number of the log. Registers meet in two things only: a node proposes number n when it knows
 * the decision of n - 1, and a decision retires all registers up to its own. So one register is modelled. "Retired"
 * means that its number, or a later one, is decided on this node's disk.
 *
 * Each node is a process. It is an acceptor, and nodes 0 .. LEADERS - 1 lead, all at once and all the time, which is the
 * worst that an election can do. One pass of its loop is one step. A step is atomic but for the places named
 * crash_point, where the node may restart: it then has what its disk has. The other places need none: no other node
 * sees what lies between them, so a crash there is a request that got lost, and then a crash.
 *
 * The network is the set of what was sent. Nobody takes a message out, so it may be read never, late, twice and in any
 * order. A refusal is not modelled: a leader may give up a round at any time, with or without one. A message repeated
 * is not modelled either, for it is in the set already.
 *
 * Everything may happen without end: crashes, lost disks, new rounds up to ROUNDS. Of lost disks, one at a time: the
 * next goes when the node of the last has joined.
 *
 * Each of these macros takes one rule away; scripts/model-check says what it breaks:
 *     PROMISE_NOT_SAVED      PROMISE_IGNORED       FIRST_VALUE           WRITE_UNCOVERED    FLOOR_FORGOTTEN
 *     ACCEPTED_NOT_SAVED     SMALL_QUORUM          ROUND_REUSED          UNSAVED_RETIRES    EMPTIED_VOTES
 *     HEARS_ONE              TOP_IGNORED           QUESTION_NOT_TOP      OLD_TOP
 * WITNESS=n turns the n-th thing that must be able to happen into an error. */

#ifndef ROUNDS
#define ROUNDS 4
#endif
#ifndef LEADERS
#define LEADERS 2
#endif
#define NODES 3

#ifdef SMALL_QUORUM
#define QUORUM 1
#else
#define QUORUM 2
#endif

#define count(mask) (((mask) & 1) + (((mask) >> 1) & 1) + (((mask) >> 2) & 1))
#define bit_of(n) (1 << (n))
#define slot(r, n) (NODES * ((r) - 1) + (n))

/* Two values are enough: agreement does not look into them, and two differ or do not. 0: none. */
#define VALUES 2
#define vote(r, v) (VALUES * ((r) - 1) + (v) - 1)

/* ---- What a node has ---- */

typedef acceptor {
  byte promised;  /* read round */
  byte accepted;  /* write round */
  byte value;
};
acceptor memory[NODES];
acceptor disk[NODES];
byte decision[NODES]; /* the record of the last decision, on disk; 0: this number is not decided here */
bit floor[NODES];     /* in memory: this number is at or below the floor */

#define IDLE 0
#define READING 1
#define WRITING 2
typedef leader {
  byte phase;
  byte round;
  byte acked;       /* nodes whose READ_ACK was counted */
  byte found_round; /* the highest write round in any READ_ACK since the node started */
  byte found_value;
  byte value;       /* what it writes */
};
leader lead[LEADERS];

/* A node without a past: host/kesh/cluster/newcomer.h. */
bit is_new[NODES];
byte heard[NODES];    /* nodes that it heard since it started */
bit must_know[NODES]; /* one of them had to do with this number, or a later one */

/* ---- What was sent ---- */

/* Leader k of the LEADERS uses the rounds k + 1, k + 1 + LEADERS and so on. */
#define owner(r) (((r) - 1) % LEADERS)

short read_req;                   /* a bit for each round */
byte read_ack[NODES * ROUNDS];    /* 0: none; 1: no value; else 2 * write round + value - 1 */
byte write_req[ROUNDS + 1];       /* a bit for each value */
byte write_ack[ROUNDS + 1];       /* a bit for each node */
byte decide;                      /* a bit for each value */

#define ack_round(ack) ((ack) / 2)
#define ack_value(ack) ((ack) % 2 + 1)

/* ---- What nobody sees: who ever accepted what, and what was decided so ---- */

byte votes[VALUES * ROUNDS]; /* a bit for each node */
byte chosen;
byte chosen_round;
byte told;

/* A rule that is missing must show as two decisions, not only as something unsound on the way there. */
#ifdef DECISIONS_ONLY
#define is_beside_the_point true
#else
#define is_beside_the_point false
#endif

byte i; /* 0 between two steps */

/* ---- Invariants ---- */

/* One decision for a number, ever: a majority that has accepted a value in one round has decided it. */
inline check_one_decision(r, v)
{
  if
  :: count(votes[vote(r, v)]) >= 2 ->
    assert(chosen == 0 || chosen == v); /* one decision */
    if
    :: chosen == 0 -> chosen = v; chosen_round = r
    :: else
    fi
  :: else
  fi
}

/* Two nodes never take different values for decided, nor anything that is not. */
inline check_decision(v)
{
  assert(told == 0 || told == v); /* one decision told */
  assert(is_beside_the_point || chosen == v); /* what is told is decided */
  told = v
}

/* Nothing decided is lost: a majority has it on disk, as its acceptance or as its decision, or would have it if a node
 * were not new. */
#define holds(n) (decision[n] == chosen || (disk[n].value == chosen && disk[n].accepted >= chosen_round))
#define keeps(n) (is_new[n] || holds(n))
#define check_nothing_lost() \
  assert(is_beside_the_point || chosen == 0 || keeps(0) + keeps(1) + keeps(2) >= 2) /* nothing decided is lost */

#define check_write(r, v) \
  assert(is_beside_the_point || chosen == 0 || r < chosen_round || v == chosen) /* a later leader writes the decided */

/* ---- Crash, and loss of a disk ---- */

inline forget(register)
{
  register.promised = 0;
  register.accepted = 0;
  register.value = 0
}

/* Answers that nobody will count any more leave the set: that changes nothing but the number of states. A round is asked
 * for again only by a leader that has neither promised it nor had it retired. Where a rule is missing, all stay. */
#ifdef KEEP_ANSWERS
#define may_count_read(r) true
#define may_count_write(r) true
#else
#define is_in(n, r, p) (lead[n].phase == p && lead[n].round == r)
#define may_count_read(r) (is_in(owner(r), r, READING) || (disk[owner(r)].promised < r && !floor[owner(r)]))
#define may_count_write(r) (is_in(owner(r), r, WRITING))
#endif
inline drop_dead_answers()
{
  for (i : 1 .. ROUNDS) {
    if
    :: !may_count_read(i) -> read_ack[slot(i, 0)] = 0; read_ack[slot(i, 1)] = 0; read_ack[slot(i, 2)] = 0
    :: else
    fi;
    if
    :: !may_count_write(i) -> write_ack[i] = 0
    :: else
    fi
  }
  i = 0
}

inline give_up(n)
{
  if
  :: n < LEADERS ->
    lead[n].phase = IDLE;
    lead[n].round = 0;
    lead[n].acked = 0;
    lead[n].value = 0
  :: else
  fi
}

inline restart(n)
{
  give_up(n);
  if
  :: n < LEADERS -> lead[n].found_round = 0; lead[n].found_value = 0
  :: else
  fi;
  memory[n].promised = disk[n].promised;
  memory[n].accepted = disk[n].accepted;
  memory[n].value = disk[n].value;
#ifdef FLOOR_FORGOTTEN
  floor[n] = 0;
#else
  floor[n] = (decision[n] != 0);
#endif
  if
  :: floor[n] -> forget(memory[n]); forget(disk[n]) /* nobody reads the file any more */
  :: else
  fi;
  heard[n] = 0;
  must_know[n] = 0
}

/* The machine is replaced. By the time the new one has joined, nothing that the old one answered, or was answered, is
 * under way any more; what it asked may be. */
inline lose_disk(n)
{
  forget(disk[n]);
  decision[n] = 0;
  restart(n);
#ifndef EMPTIED_VOTES
  is_new[n] = 1;
#endif
  for (i : 1 .. ROUNDS) {
    read_ack[slot(i, n)] = 0;
    write_ack[i] = write_ack[i] & ~bit_of(n);
    if
    :: owner(i) == n ->
      read_ack[slot(i, 0)] = 0; read_ack[slot(i, 1)] = 0; read_ack[slot(i, 2)] = 0;
      write_ack[i] = 0
    :: else
    fi
  }
  i = 0
}

/* ---- Acceptor: src/round_based_registers/register_acceptor.cc ---- */

#define votes_here(n) (!is_new[n] && !floor[n])
#define is_asked(r) ((read_req >> (r)) & 1)
#define promises(n, r) (is_asked(r) && votes_here(n) && r > memory[n].accepted && r > memory[n].promised)

#ifdef PROMISE_IGNORED
#define is_not_below_promise(n, r) true
#else
#define is_not_below_promise(n, r) (r >= memory[n].promised)
#endif
#define accepts(n, r, v) \
  (((write_req[r] >> (v)) & 1) && votes_here(n) && is_not_below_promise(n, r) && r >= memory[n].accepted)
#define is_new_vote(n, r, v) (!(votes[vote(r, v)] & bit_of(n)) || !(write_ack[r] & bit_of(n)) && may_count_write(r))

inline save(n)
{
  disk[n].accepted = memory[n].accepted;
  disk[n].value = memory[n].value;
#ifndef PROMISE_NOT_SAVED
  disk[n].promised = memory[n].promised
#endif
}

inline send_read_ack(n, r)
{
  if
  :: may_count_read(r) ->
    if
    :: memory[n].accepted == 0 -> read_ack[slot(r, n)] = 1
    :: else -> read_ack[slot(r, n)] = 2 * memory[n].accepted + memory[n].value - 1
    fi
  :: else
  fi
}

inline send_write_ack(n, r)
{
  if
  :: may_count_write(r) -> write_ack[r] = write_ack[r] | bit_of(n)
  :: else
  fi
}

/* ---- Decision: src/ordered_broadcast/decided_log.cc ---- */

inline retire(n)
{
  forget(memory[n]);
  forget(disk[n]);
  floor[n] = 1;
  give_up(n)
}

/* ---- Leader: register_requester.cc, consensus.cc, src/ordered_broadcast/proposer.cc ---- */

#define leads_here(n) (n < LEADERS && !is_new[n] && decision[n] == 0)

#ifdef ROUND_REUSED
#define is_unused(n, r) true
#else
#define is_unused(n, r) (r > memory[n].promised && r > memory[n].accepted)
#endif
#define may_read(n, r) \
  (leads_here(n) && owner(r) == n && is_unused(n, r) && (lead[n].phase == IDLE || lead[n].round < r))

#define may_count(n, a) (leads_here(n) && lead[n].phase == READING && !(lead[n].acked & bit_of(a)) && \
                         read_ack[slot(lead[n].round, a)] != 0)

#ifdef FIRST_VALUE
#define is_better(n, ack) (ack_round(ack) > 0 && lead[n].found_round == 0)
#else
#define is_better(n, ack) (ack_round(ack) > lead[n].found_round)
#endif

#define may_write(n) (leads_here(n) && lead[n].phase == READING && count(lead[n].acked) >= QUORUM)
#define has_decided(n) (leads_here(n) && lead[n].phase == WRITING && count(write_ack[lead[n].round]) >= QUORUM)

/* The names of values do not matter: the first that is written is 1. */
#define is_any_written \
  (write_req[1] || write_req[2] || (ROUNDS > 2 && write_req[3 % (ROUNDS + 1)]) || \
   (ROUNDS > 3 && write_req[4 % (ROUNDS + 1)]) || (ROUNDS > 4 && write_req[5 % (ROUNDS + 1)]) || \
   (ROUNDS > 5 && write_req[6 % (ROUNDS + 1)]))

/* ---- Joining as new: host/kesh/cluster/newcomer.cc ---- */

#define other_1(n) (((n) + 1) % NODES)
#define other_2(n) (((n) + 2) % NODES)

/* What a hello tells: this node had to do with this number, or a later one. */
#define has_on_disk(n) (decision[n] != 0 || disk[n].promised != 0 || disk[n].accepted != 0)
#ifdef QUESTION_NOT_TOP
#define asks(n) false
#else
#define asks(n) (n < LEADERS && lead[n % LEADERS].phase != IDLE)
#endif
#define top(n) (has_on_disk(n) || asks(n))

#ifdef HEARS_ONE
#define has_heard_enough(n) (heard[n] != 0)
#else
#define has_heard_enough(n) (count(heard[n]) == NODES - 1)
#endif
#ifdef TOP_IGNORED
#define knows_enough(n) true
#else
#define knows_enough(n) (!must_know[n] || decision[n] != 0)
#endif

#ifdef LOSSES
byte losses;
#define may_lose_disk(n) (losses < LOSSES)
#define one_more_loss losses++
#else
#define may_lose_disk(n) (!is_new[0] && !is_new[1] && !is_new[2])
#define one_more_loss skip
#endif

/* ---- A node ---- */

#if ROUNDS == 2
#define pick_round(condition) if :: condition(me, 1) -> r = 1 :: condition(me, 2) -> r = 2 fi
#elif ROUNDS == 3
#define pick_round(condition) if :: condition(me, 1) -> r = 1 :: condition(me, 2) -> r = 2 \
                              :: condition(me, 3) -> r = 3 fi
#elif ROUNDS == 4
#define pick_round(condition) if :: condition(me, 1) -> r = 1 :: condition(me, 2) -> r = 2 \
                              :: condition(me, 3) -> r = 3 :: condition(me, 4) -> r = 4 fi
#elif ROUNDS == 5
#define pick_round(condition) if :: condition(me, 1) -> r = 1 :: condition(me, 2) -> r = 2 \
                              :: condition(me, 3) -> r = 3 :: condition(me, 4) -> r = 4 \
                              :: condition(me, 5) -> r = 5 fi
#else
#define pick_round(condition) if :: condition(me, 1) -> r = 1 :: condition(me, 2) -> r = 2 \
                              :: condition(me, 3) -> r = 3 :: condition(me, 4) -> r = 4 \
                              :: condition(me, 5) -> r = 5 :: condition(me, 6) -> r = 6 fi
#endif

#define accepts_1(n, r) (accepts(n, r, 1) && is_new_vote(n, r, 1))
#define accepts_2(n, r) (accepts(n, r, 2) && is_new_vote(n, r, 2))

#define me _pid

active [NODES] proctype node()
{
  byte r, v;
  bit crashes;

end:
  do
  :: atomic { /* READ_REQ arrives */
      pick_round(promises);
      if :: crashes = 0 :: crashes = 1 fi;
promise:
      d_step {
        memory[me].promised = r;
        save(me);
        if /* crash_point */
        :: crashes -> restart(me)
        :: else -> send_read_ack(me, r)
        fi;
        drop_dead_answers();
        r = 0; crashes = 0
      }
    }
  :: atomic { /* WRITE_REQ arrives */
      if
      :: pick_round(accepts_1); v = 1
      :: pick_round(accepts_2); v = 2
      fi;
      if :: crashes = 0 :: crashes = 1 fi;
acceptance:
      d_step {
        memory[me].accepted = r;
        memory[me].value = v;
#ifdef ACCEPTED_NOT_SAVED
        votes[vote(r, v)] = votes[vote(r, v)] | bit_of(me);
        send_write_ack(me, r);
        if /* crash_point */
        :: crashes -> restart(me)
        :: else -> save(me)
        fi;
#else
        save(me);
        votes[vote(r, v)] = votes[vote(r, v)] | bit_of(me);
        if /* crash_point */
        :: crashes -> restart(me)
        :: else -> send_write_ack(me, r)
        fi;
#endif
        check_one_decision(r, v);
        check_nothing_lost();
        drop_dead_answers();
        r = 0; v = 0; crashes = 0
      }
    }

  :: atomic { /* begins a round: READ */
      pick_round(may_read);
      d_step {
        lead[me].phase = READING;
        lead[me].round = r;
        lead[me].acked = 0;
        lead[me].value = 0;
        read_req = read_req | (1 << r);
        drop_dead_answers();
        r = 0
      }
    }
  :: atomic { /* READ_ACK arrives */
      if
      :: may_count(me, 0) -> r = 0
      :: may_count(me, 1) -> r = 1
      :: may_count(me, 2) -> r = 2
      fi;
      d_step {
        lead[me].acked = lead[me].acked | bit_of(r);
        v = read_ack[slot(lead[me].round, r)];
        if
        :: is_better(me, v) ->
read_back:
          lead[me].found_round = ack_round(v);
          lead[me].found_value = ack_value(v)
        :: else
        fi;
        r = 0; v = 0
      }
    }
  :: atomic { /* WRITE */
      may_write(me);
      if
      :: lead[me].found_round > 0 -> v = lead[me].found_value
      :: lead[me].found_round == 0 -> v = 1
      :: lead[me].found_round == 0 && is_any_written -> v = 2
      fi;
      d_step {
        r = lead[me].round;
#ifndef WRITE_UNCOVERED
cover:
        if
        :: memory[me].promised < r -> memory[me].promised = r; save(me)
        :: else
        fi;
#endif
        check_write(r, v);
        lead[me].phase = WRITING;
        lead[me].value = v;
        lead[me].acked = 0;
        write_req[r] = write_req[r] | bit_of(v);
        drop_dead_answers();
        r = 0; v = 0
      }
    }

  :: atomic { /* a decision: by WRITE_ACKs of a majority, or by DECIDE */
      if
      :: has_decided(me) -> v = lead[me].value
      :: decision[me] == 0 && (decide & bit_of(1)) -> v = 1
      :: decision[me] == 0 && (decide & bit_of(2)) -> v = 2
      fi;
      if :: crashes = 0 :: crashes = 1 fi;
      d_step {
        check_decision(v);
#ifdef UNSAVED_RETIRES
        retire(me);
        if /* crash_point */
        :: crashes -> restart(me)
        :: else -> decision[me] = v; decide = decide | bit_of(v)
        fi;
#else
        decision[me] = v;
        if /* crash_point */
        :: crashes -> restart(me)
        :: else ->
retirement:
          retire(me);
          decide = decide | bit_of(v)
        fi;
#endif
        check_nothing_lost();
        drop_dead_answers();
        v = 0; crashes = 0
      }
    }

  :: d_step { /* crash */
      true;
      restart(me);
      check_nothing_lost();
      drop_dead_answers()
    }
  :: d_step { /* the disk is lost */
      may_lose_disk(me);
      one_more_loss;
      lose_disk(me);
      check_nothing_lost();
      drop_dead_answers()
    }
  :: atomic { /* a hello arrives at a new node */
      if
      :: is_new[me] && !(heard[me] & bit_of(other_1(me))) -> r = other_1(me)
      :: is_new[me] && !(heard[me] & bit_of(other_2(me))) -> r = other_2(me)
      fi;
#ifdef OLD_TOP
      if :: v = 0 :: v = 1 fi;
#endif
      d_step {
        heard[me] = heard[me] | bit_of(r);
        must_know[me] = must_know[me] || (top(r) && v == 0);
        r = 0; v = 0
      }
    }
  :: d_step {
      is_new[me] && has_heard_enough(me) && knows_enough(me);
joining_as_new:
      is_new[me] = 0;
      heard[me] = 0;
      must_know[me] = 0;
      check_nothing_lost()
    }
  od
}
