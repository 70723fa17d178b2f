// Threads: what runs side by side, and what waits for what.
using System;
using System.Collections.Generic;
using System.Linq;
using System.Threading;
using Tessera;

public class ThreadTests : HomeTest
{
    private const int Threads = 4;

    /// <summary>Runs an action on several threads and throws what one of them threw.</summary>
    private static void Parallel(Action<int> action)
    {
        Exception failure = null;
        List<Thread> threads = Enumerable.Range(0, Threads).Select(number => new Thread(() =>
        {
            try
            {
                action(number);
            }
            catch (Exception error)
            {
                failure = error;
            }
        })).ToList();
        threads.ForEach(thread => thread.Start());
        threads.ForEach(thread => thread.Join());
        if (failure != null) throw new Exception("on a thread", failure);
    }

    private static string Text(int number)
    {
        return Texts.Prose(800, (uint)(1000 + number));
    }

    public void SignaturesOfDifferentSettingsDoNotMix()
    {
        string text = Texts.Prose(5000, 1);
        Signature[] client = Generator.Signatures(text);
        Signature[] server = Generator.Signatures(text, Platform.Server);
        Parallel(number =>
        {
            for (int i = 0; i < 20; ++i)
            {
                bool sparse = (number + i) % 2 == 0;
                Expect.Same(sparse ? server : client,
                            Generator.Signatures(text, sparse ? Platform.Server : Platform.Client));
            }
        });
    }

    public void DocumentsAreAddedAndFoundFromAllThreads()
    {
        using (var index = new IndexSession(Home))
        {
            Parallel(number =>
            {
                for (int i = number; i < 40; i += Threads) index.Add(i, Generator.Signatures(Text(i)));
            });
        }
        using (var session = new MatchSession(Home))
        {
            Parallel(number =>
            {
                for (int i = 0; i < 40; ++i)
                {
                    Expect.Equal((long)i, session.Match(Generator.Signatures(Text(i))).Single().FileId);
                }
            });
        }
    }

    public void OneHomeIsMatchedByManyWhileAnotherIsWritten()
    {
        string green = NewHome("green");
        using (var index = new IndexSession(Home)) index.Add(1, Generator.Signatures(Text(1)));
        using (var session = new MatchSession(Home))
        {
            Parallel(number =>
            {
                if (number == 0)
                {
                    for (int round = 0; round < 5; ++round)
                    {
                        using (var index = new IndexSession(green))
                        {
                            index.Add(100 + round, Generator.Signatures(Text(2)));
                        }
                    }
                    return;
                }
                for (int i = 0; i < 100; ++i)
                {
                    Expect.Equal(1L, session.Match(Generator.Signatures(Text(1))).Single().FileId);
                }
            });
        }
        using (var session = new MatchSession(green))
        {
            Expect.Equal(5, session.Match(Generator.Signatures(Text(2))).Length);
        }
    }

    // A call gets its answer or learns that the session is closed: never a failure between.
    public void ClosingWaitsForTheCallsThatRun()
    {
        using (var index = new IndexSession(Home)) index.Add(1, Generator.Signatures(Text(1)));
        Signature[] query = Generator.Signatures(Text(1));
        for (int round = 0; round < 20; ++round)
        {
            var session = new MatchSession(Home);
            var closing = new ManualResetEvent(false);
            Parallel(number =>
            {
                if (number == 0)
                {
                    closing.WaitOne();
                    session.Close();
                    return;
                }
                try
                {
                    for (int i = 0; ; ++i)
                    {
                        Expect.Equal(1, session.Match(query).Length);
                        if (i == 5) closing.Set();
                    }
                }
                catch (ObjectDisposedException)
                {
                }
            });
        }
    }
}
